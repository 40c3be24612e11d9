// tests/fuzz/readers/reader_program.cpp: a reader on an image whose metadata arbitrary bytes change
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/fuzz/readers/reader_program.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "driver/fsreaders/ext2_reader.h"
#include "driver/fsreaders/readers.h"
#include "driver/fsreaders/reiserfs_reader.h"
#include "driver/fsreaders/xfs_reader.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/utils/trak_utils.h"
#include "os/sim/sim.h"
#include "tests/support/fs_images.h"

namespace fuzz {

namespace {

using namespace fs_images;

constexpr os_dev_t kDev = 8u << 20 | 16u;
constexpr std::uint64_t kSize = 12 << 20;

constexpr trak_fs_reader kReaders[] = {
    {ext2_reader_init, ext2_reader_read, ext2_reader_destroy},
    {reiserfs_reader_init, reiserfs_reader_read, reiserfs_reader_destroy},
    {xfs_reader_init, xfs_reader_read, xfs_reader_destroy},
};

void use_some(std::vector<bool> &used) {
    for (std::size_t b = 0; b < used.size(); ++b)
        if (b % 64 < 20 || b % 7 == 3)
            used[b] = true;
}

Pieces make(ReaderImage kind) {
    if (kind == ReaderImage::kExt2) {
        Ext2 fs(1024, 8192 + 2000);
        use_some(fs.used);
        return fs.pieces();
    }
    if (kind == ReaderImage::kReiser) {
        Reiser fs(512, 4096 * 2 + 1000);
        use_some(fs.used);
        return fs.pieces();
    }
    Xfs fs(512, 1024, 1024 * 2 + 500);
    fs.per_leaf = 4;
    fs.per_node = 3;
    for (std::uint32_t ag = 0; ag < fs.ags; ++ag)
        for (std::uint32_t at = 60; at + 30 < fs.length(ag); at += 40)
            fs.free[ag].push_back({at, 1 + at % 23});
    return fs.pieces();
}

const Pieces &image(ReaderImage kind) {
    static const Pieces images[] = {make(ReaderImage::kExt2), make(ReaderImage::kReiser),
                                    make(ReaderImage::kXfs)};
    return images[static_cast<std::size_t>(kind)];
}

void change(Pieces &pieces, Bytes input) {
    input.resize((input.size() + 7) / 8 * 8);
    for (const std::uint8_t *is = input.data(); is < input.data() + input.size(); is += 8) {
        Bytes &bytes = pieces[is[0] % pieces.size()].bytes;
        // Most fields lie at the begin of their block.
        const auto where = static_cast<std::size_t>(is[1] | is[2] << 8);
        const std::size_t at = where % (is[3] & 0x80 ? bytes.size() : 128);
        const std::size_t width = std::size_t{1} << (is[3] & 3);
        for (std::size_t i = 0; i < width && at + i < bytes.size(); ++i) {
            const std::uint8_t value = i < 4 ? is[4 + i] : 0;
            std::uint8_t &byte = bytes[at + i];
            byte = is[3] & 0x40 ? static_cast<std::uint8_t>(byte + value) : value;
        }
    }
}

// ---- what the changed image says, in the words of its format -----------------------------------

struct Image {
    const sim::Disk &disk;

    std::uint64_t le(std::uint64_t at, unsigned width) const {
        std::uint64_t value = 0;
        const Bytes bytes = disk.read(at, width);
        for (unsigned i = 0; i < width; ++i)
            value |= std::uint64_t{bytes[i]} << (8 * i);
        return value;
    }
    std::uint64_t be(std::uint64_t at, unsigned width) const {
        std::uint64_t value = 0;
        for (const std::uint8_t byte : disk.read(at, width))
            value = value << 8 | byte;
        return value;
    }
};

bool is_set(const Bytes &bits, std::uint64_t n) {
    return (bits.at(n / 8) >> (n % 8)) & 1;
}

[[noreturn]] void wrong(const char *what, std::uint64_t number) {
    throw std::logic_error(std::string(what) + " " + std::to_string(number));
}

// `map` has one bit per block of the disk, set where the reader says that it is in use.
void check_ext2(const Image &image, const Bytes &map, std::uint32_t block_size) {
    const std::uint64_t first = image.le(1024 + 20, 4);
    const std::uint64_t count = image.le(1024 + 4, 4);
    const std::uint64_t per_group = block_size * 8;
    const std::uint64_t end = std::min<std::uint64_t>(count, kSize / block_size);
    for (std::uint64_t group = 0; group * per_group + first < end; ++group) {
        const std::uint64_t desc = (first + 1) * block_size + group * 32;
        const Bytes bits = image.disk.read(image.le(desc, 4) * block_size, block_size);
        std::uint64_t free = 0;
        for (std::uint64_t i = 0; i < per_group; ++i)
            free += !is_set(bits, i);
        const bool agrees = free == image.le(desc + 12, 2);
        for (std::uint64_t i = 0; i < per_group; ++i) {
            const std::uint64_t block = group * per_group + first + i;
            if (block < end && (!agrees || is_set(bits, i)) && !is_set(map, block))
                wrong("block in use called free:", block);
        }
    }
}

void check_reiser(const Image &image, const Bytes &map, std::uint32_t block_size) {
    const std::uint64_t per_bitmap = block_size * 8;
    const std::uint64_t count = image.le(65536, 4);
    const std::uint64_t end = std::min<std::uint64_t>(count, kSize / block_size);
    std::uint64_t free = 0;
    Bytes bits;
    for (std::uint64_t block = 0; block < end; ++block) {
        const std::uint64_t i = block / per_bitmap;
        const std::uint64_t at = i == 0 ? 65536 / block_size + 1 : i * per_bitmap;
        if (block % per_bitmap == 0)
            bits = image.disk.read(at * block_size, block_size);
        const bool in_use = is_set(bits, block % per_bitmap);
        free += !in_use;
        if (in_use && !is_set(map, block))
            wrong("block in use called free:", block);
    }
    if (end == count && count % 8 == 0 && free != image.le(65536 + 4, 4))
        wrong("file system with another free count taken:", free);
}

void check_xfs(const Image &image, const Bytes &map, std::uint32_t block_size) {
    const std::uint64_t per_ag = image.be(84, 4);
    for (std::uint64_t ag = 0; ag < image.be(88, 4); ++ag) {
        const std::uint64_t start = ag * per_ag;
        const std::uint64_t stated = image.be(start * block_size + 512 + 52, 4);
        std::uint64_t free = 0;
        for (std::uint64_t r = 0; r < per_ag && start + r < kSize / block_size; ++r)
            free += !is_set(map, start + r);
        if (free > stated)
            wrong("more blocks called free than the AG has:", free);
        if (!is_set(map, start))
            wrong("superblock called free:", start);
    }
}

void check(ReaderImage kind, const sim::Disk &disk, const Bytes &map, std::uint32_t block_size) {
    const Image image{disk};
    if (kind == ReaderImage::kExt2)
        check_ext2(image, map, block_size);
    else if (kind == ReaderImage::kReiser)
        check_reiser(image, map, block_size);
    else
        check_xfs(image, map, block_size);
}

// Chunks that are larger say no less than their blocks.
void check_larger(const trak_fs_reader &reader, void *context, const Bytes &map,
                  std::uint32_t block_size) {
    const std::uint32_t ratio = 8;
    const auto blocks = static_cast<std::uint32_t>(kSize / block_size);
    const auto chunks = static_cast<std::int32_t>(blocks / ratio);
    const std::uint32_t first = 5;
    Bytes bits(static_cast<std::size_t>(chunks) / 8 + 1);
    if (reader.read(context, first, block_size * ratio, bits.data(), chunks - 5) < 0)
        return;
    for (std::uint32_t b = first * ratio; b < blocks; ++b)
        if (is_set(map, b) && !is_set(bits, b / ratio - first))
            wrong("chunk with a block in use called free:", b / ratio);
}

bool read_all(ReaderImage kind, const sim::Disk &disk, os_bdev *bdev) {
    const trak_fs_reader &reader = kReaders[static_cast<std::size_t>(kind)];
    std::int32_t size = 0;
    void *context = reader.init(bdev, &size);
    if (context == nullptr)
        return false;
    const auto block_size = static_cast<std::uint32_t>(size);
    const auto blocks = static_cast<std::int32_t>(kSize / block_size);
    Bytes map(static_cast<std::size_t>(blocks) / 8 + 1);
    const bool good = reader.read(context, 0, block_size, map.data(), blocks) >= 0;
    if (good)
        check_larger(reader, context, map, block_size);
    (void)reader.destroy(context);
    if (good)
        check(kind, disk, map, block_size);
    return good;
}

}  // namespace

bool run_reader_program(ReaderImage kind, std::span<const std::uint8_t> input) {
    Pieces pieces = image(kind);
    change(pieces, Bytes(input.begin(), input.end()));
    sim::Storage storage;
    sim::Disk &disk = storage.add_disk("sdb", kDev, kSize, 512);
    for (const Piece &piece : pieces)
        disk.write(piece.offset, piece.bytes);
    bool good = false;
    sim::World(storage, {}).run([&] {
        trak_debug = 0;
        os_bdev *bdev = trak_open_bdev(kDev, OS_FMODE_READ);
        if (bdev == nullptr)
            throw std::logic_error("the disk can't be opened");
        good = read_all(kind, disk, bdev);
        trak_close_bdev(bdev);
        trak_debug_destroy();
    });
    return good;
}

int run_reader_input(ReaderImage kind, const std::uint8_t *data, std::size_t size) {
    try {
        (void)run_reader_program(kind, {data, size});
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        std::abort();
    }
    return 0;
}

}  // namespace fuzz
