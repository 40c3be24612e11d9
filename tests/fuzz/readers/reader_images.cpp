// tests/fuzz/readers/reader_images.cpp: the file systems that the readers' fuzzers begin with
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/fuzz/readers/reader_images.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "tests/support/fs_images.h"

namespace fuzz {

namespace {

using namespace fs_images;

constexpr std::uint64_t kTail = 16 * 1024;  // of a disk behind its file system

// Disks live as long as the process does.
std::span<std::uint8_t> new_disk(std::uint64_t size) {
    void *bytes = std::calloc(1, size);
    if (bytes == nullptr)
        throw std::runtime_error("no memory for a disk");
    return {static_cast<std::uint8_t *>(bytes), size};
}

void use_some(std::vector<bool> &used) {
    for (std::size_t b = 0; b < used.size(); ++b)
        if (b % 64 < 20 || b % 7 == 3)
            used[b] = true;
}

Seed lay_out(const Pieces &pieces, std::uint64_t bytes) {
    Seed seed{new_disk(bytes + kTail), {}};
    for (const Piece &piece : pieces) {
        seed.pieces.push_back(seed.disk.subspan(piece.offset, piece.bytes.size()));
        std::copy(piece.bytes.begin(), piece.bytes.end(), seed.pieces.back().begin());
    }
    return seed;
}

Seed ext2(std::uint32_t block_size, std::uint32_t blocks) {
    Ext2 fs(block_size, blocks);
    use_some(fs.used);
    return lay_out(fs.pieces(), fs.bytes());
}

Seed reiser(std::uint32_t block_size, std::uint32_t blocks) {
    Reiser fs(block_size, blocks);
    use_some(fs.used);
    return lay_out(fs.pieces(), fs.bytes());
}

Seed xfs(std::uint32_t block_size, std::uint32_t ag_blocks, std::uint32_t blocks,
         std::uint32_t per_leaf) {
    Xfs fs(block_size, ag_blocks, blocks);
    fs.per_leaf = per_leaf;
    fs.per_node = 3;
    for (std::uint32_t ag = 0; ag < fs.ags; ++ag)
        for (std::uint32_t at = 24; at + 8 < fs.length(ag); at += 10)
            fs.free[ag].push_back({at, 1 + at % 7});
    return lay_out(fs.pieces(), fs.bytes());
}

// ---- images that the tools made ------------------------------------------------------------------

void add_piece(Seed &seed, std::uint64_t offset, std::uint64_t size) {
    if (offset + size > seed.disk.size())
        throw std::runtime_error("metadata beyond the end of an image");
    seed.pieces.push_back(seed.disk.subspan(offset, size));
}

void find_ext2(Seed &seed) {
    const std::uint64_t block = std::uint64_t{1024} << le(seed.disk, 1024 + 24, 4);
    const std::uint64_t first = le(seed.disk, 1024 + 20, 4);
    const std::uint64_t groups = (le(seed.disk, 1024 + 4, 4) - first + block * 8 - 1) / (block * 8);
    add_piece(seed, 1024, 1024);
    add_piece(seed, (first + 1) * block, block);
    for (std::uint64_t g = 0; g < groups; ++g)
        add_piece(seed, le(seed.disk, (first + 1) * block + g * 32, 4) * block, block);
}

void find_reiser(Seed &seed) {
    const std::span<std::uint8_t> super = seed.disk.subspan(65536, 512);
    const std::uint64_t block = le(super, 44, 2);
    add_piece(seed, 65536, 512);
    for (std::uint64_t i = 0; i < le(super, 70, 2); ++i)
        add_piece(seed, i == 0 ? 65536 + block : i * block * block * 8, block);
    add_piece(seed, (le(super, 12, 4) + le(super, 20, 4)) * block, block);  // the journal's header
}

void find_xfs(Seed &seed) {
    const std::uint64_t block = be(seed.disk, 4, 4);
    const std::uint64_t per_ag = be(seed.disk, 84, 4) * block;
    for (std::uint64_t ag = 0; ag < be(seed.disk, 88, 4); ++ag) {
        add_piece(seed, ag * per_ag, 512);
        add_piece(seed, ag * per_ag + 512, 512);
    }
    for (std::uint64_t at = 0; at + block <= seed.disk.size(); at += block)
        if (be(seed.disk, at, 4) == 0x41425442)
            add_piece(seed, at, block);
}

Seed load(const std::filesystem::path &path, void (*find)(Seed &)) {
    Seed seed{new_disk(std::filesystem::file_size(path)), {}};
    std::ifstream file(path, std::ios::binary);
    // Zeroes are left out, so that a sparse file stays one in memory.
    char part[4096];
    for (std::size_t at = 0; at < seed.disk.size(); at += sizeof part) {
        const std::size_t size = std::min(sizeof part, seed.disk.size() - at);
        if (!file.read(part, static_cast<std::streamsize>(size)))
            throw std::runtime_error("can't read " + path.string());
        if (std::any_of(part, part + size, [](char byte) { return byte != 0; }))
            std::memcpy(seed.disk.data() + at, part, size);
    }
    find(seed);
    return seed;
}

void load_all(std::vector<Seed> &seeds, const std::string &prefix, void (*find)(Seed &)) {
    const char *folder = std::getenv("TRAK_FUZZ_IMAGES");
    if (folder == nullptr)
        return;
    std::vector<std::filesystem::path> paths;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        if (entry.path().filename().string().starts_with(prefix))
            paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    for (const auto &path : paths)
        seeds.push_back(load(path, find));
    std::fprintf(stderr, "%zu images of %s from %s\n", paths.size(), prefix.c_str(), folder);
}

Seeds make(ReaderImage kind) {
    Seeds seeds;
    if (kind == ReaderImage::kExt2) {
        seeds.small = {ext2(1024, 300), ext2(2048, 180), ext2(4096, 150), ext2(1024, 513)};
        seeds.large = {ext2(1024, 8192 + 90), ext2(1024, 2 * 8192 + 40)};
        load_all(seeds.large, "ext", find_ext2);
    } else if (kind == ReaderImage::kReiser) {
        seeds.small = {reiser(512, 400), reiser(1024, 264), reiser(4096, 130), reiser(512, 333)};
        seeds.large = {reiser(512, 4096 + 100), reiser(512, 2 * 4096 + 8)};
        load_all(seeds.large, "reiserfs", find_reiser);
    } else {
        seeds.small = {xfs(512, 80, 80, 2), xfs(512, 128, 128 * 2 + 70, 4),
                       xfs(1024, 100, 100 * 2, 126), xfs(4096, 60, 60 + 50, 2)};
        seeds.large = {xfs(512, 1024, 1024 + 500, 3)};
        load_all(seeds.large, "xfs", find_xfs);
    }
    return seeds;
}

}  // namespace

const Seeds &seeds_of(ReaderImage kind) {
    static auto *const seeds = new Seeds[3];  // never freed: others end after it
    Seeds &of_kind = seeds[static_cast<std::size_t>(kind)];
    if (of_kind.small.empty())
        of_kind = make(kind);
    return of_kind;
}

}  // namespace fuzz
