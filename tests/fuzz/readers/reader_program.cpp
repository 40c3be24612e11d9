// tests/fuzz/readers/reader_program.cpp: a reader on an image whose metadata arbitrary bytes change
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/fuzz/readers/reader_program.h"

#include <algorithm>
#include <array>
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
#include "tests/fuzz/readers/one_task.h"
#include "tests/fuzz/readers/reader_oracle.h"

namespace fuzz {

namespace {

constexpr trak_fs_reader kReaders[] = {
    {ext2_reader_init, ext2_reader_read, ext2_reader_destroy},
    {reiserfs_reader_init, reiserfs_reader_read, reiserfs_reader_destroy},
    {xfs_reader_init, xfs_reader_read, xfs_reader_destroy},
};

using Record = std::array<std::uint8_t, 8>;

Record record_at(std::span<const std::uint8_t> input, std::size_t at) {
    Record record{};
    const std::size_t left = at < input.size() ? input.size() - at : 0;
    std::copy_n(input.data() + std::min(at, input.size()), std::min(left, record.size()),
                record.begin());
    return record;
}

// The changed disk; puts back what it changed.
class Damage {
  public:
    explicit Damage(const Seed &seed) : seed_(seed) { undo_.reserve(256); }
    Damage(const Damage &) = delete;
    Damage &operator=(const Damage &) = delete;
    ~Damage() {
        for (auto it = undo_.rbegin(); it != undo_.rend(); ++it)
            seed_.disk[it->at] = it->was;
    }

    void change(const Record &is) {
        const std::span<std::uint8_t> bytes = seed_.pieces[is[0] % seed_.pieces.size()];
        const auto base = static_cast<std::uint64_t>(bytes.data() - seed_.disk.data());
        const auto where = static_cast<std::size_t>(is[1] | is[2] << 8);
        const std::size_t at = where % (is[3] & 0x80 ? bytes.size() : 128);
        const std::size_t width = std::size_t{1} << (is[3] & 3);
        for (std::size_t i = 0; i < width && at + i < bytes.size(); ++i) {
            const std::uint8_t value = i < 4 || is[3] & 0x20 ? is[4 + i % 4] : 0;
            const std::uint8_t was = bytes[at + i];
            undo_.push_back({base + at + i, was});
            bytes[at + i] = is[3] & 0x40 ? static_cast<std::uint8_t>(was + value) : value;
        }
    }
    void mend(ReaderImage kind) { mend_counts(kind, seed_.disk, undo_); }

  private:
    const Seed &seed_;
    std::vector<Undo> undo_;
};

[[noreturn]] void wrong(const char *what, std::uint64_t number) {
    throw std::logic_error(std::string(what) + " " + std::to_string(number));
}

// A reader at work on a disk.
struct Reading {
    const trak_fs_reader &reader;
    void *context;
    std::uint32_t block_size;
    std::uint32_t blocks;  // that cover the disk

    // Bits for the chunks [first, first + count) of so many blocks each; empty where the reader fails.
    Bits read(std::uint32_t first, std::uint32_t ratio, std::uint32_t count) const {
        Bits bits((std::size_t{count} + 7) / 8, 0x5a);
        const int rc = reader.read(context, first, block_size * ratio, bits.data(),
                                   static_cast<std::int32_t>(count));
        return rc < 0 ? Bits{} : bits;
    }
    std::uint32_t chunks(std::uint32_t ratio) const { return (blocks + ratio - 1) / ratio; }
};

// The chunks of another size, as a whole and a portion of them.
void check_chunks(const Reading &reading, const Bits &map, const Record &head) {
    const std::uint32_t ratio = 1u << head[3] % 15;
    const std::uint32_t chunks = reading.chunks(ratio);
    const Bits whole = ratio == 1 ? map : reading.read(0, ratio, chunks);
    const std::uint32_t first = static_cast<std::uint32_t>(head[4] | head[5] << 8) % chunks;
    const std::uint32_t count =
        1 + static_cast<std::uint32_t>(head[6] | head[7] << 8) % (chunks - first);
    const Bits portion = reading.read(first, ratio, count);
    if (whole.empty())
        return;
    for (std::uint32_t block = 0; ratio != 1 && block < reading.blocks; ++block)
        if (is_set(map, block) && !is_set(whole, block / ratio))
            wrong("chunk with a block in use called free:", block / ratio);
    if (portion.empty())
        return;
    for (std::uint32_t k = 0; k < count; ++k)
        if (is_set(portion, k) != is_set(whole, first + k))
            wrong("portion that differs from the whole at", first + k);
}

bool read_all(ReaderImage kind, Disk disk, os_bdev *bdev, const Record &head) {
    const trak_fs_reader &reader = kReaders[static_cast<std::size_t>(kind)];
    std::int32_t size = 0;
    void *context = reader.init(bdev, &size);
    if (context == nullptr)
        return false;
    const auto block_size = static_cast<std::uint32_t>(size);
    const Reading reading{reader, context, block_size,
                          static_cast<std::uint32_t>((disk.size() + block_size - 1) / block_size)};
    const Bits map = reading.read(0, 1, reading.blocks);
    if (!map.empty())
        check_chunks(reading, map, head);
    (void)reader.destroy(context);
    if (!map.empty())
        check_map(kind, disk, map, block_size);
    return !map.empty();
}

const Seed &seed_for(const Seeds &seeds, std::uint8_t number) {
    return number < kFirstLarge ? seeds.small[number % seeds.small.size()]
                                : seeds.large[(number - kFirstLarge) % seeds.large.size()];
}

}  // namespace

bool run_reader_program(ReaderImage kind, std::span<const std::uint8_t> input) {
    const Record head = record_at(input, 0);
    const Seed &seed = seed_for(seeds_of(kind), head[0]);
    Damage damage(seed);
    for (std::size_t i = 0; i < kMostReaderChanges; ++i) {
        const std::size_t at = kReaderHead + i * kReaderChange;
        if (at >= input.size())
            break;
        damage.change(record_at(input, at));
    }
    if ((head[2] & 1) != 0)
        damage.mend(kind);
    one_task::Faults faults;
    (head[1] >= 128 ? faults.read : faults.allocation) = head[1] % 128u + (head[1] >= 128);
    trak_debug = (head[2] & 0xe) == 0xe ? 4 : 0;
    os_bdev *bdev = one_task::begin(seed.disk, faults);
    const bool good = read_all(kind, seed.disk, bdev, head);
    trak_debug_destroy();
    one_task::end();
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
