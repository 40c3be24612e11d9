// tests/fuzz/readers/reader_oracle.cpp: what an image says of itself, in the words of its format
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/fuzz/readers/reader_oracle.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

namespace fuzz {

namespace {

[[noreturn]] void wrong(const char *what, std::uint64_t number) {
    throw std::logic_error(std::string(what) + " " + std::to_string(number));
}

bool has(Disk disk, std::uint64_t at, std::uint64_t size) {
    return at <= disk.size() && disk.size() - at >= size;
}

// Of a multiple of 8 bytes.
std::uint64_t zeroes_in(Disk bits) {
    std::uint64_t ones = 0;
    for (std::size_t i = 0; i + 8 <= bits.size(); i += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, &bits[i], sizeof word);
        ones += static_cast<std::uint64_t>(std::popcount(word));
    }
    return bits.size() * 8 - ones;
}

bool bit_of(Disk bits, std::uint64_t n) {
    return (bits[n / 8] >> (n % 8)) & 1;
}

// ---- ext2 and ext3 -------------------------------------------------------------------------------

void check_ext2(Disk disk, const Bits &map, std::uint64_t block_size) {
    const std::uint64_t first = le(disk, 1024 + 20, 4);
    const std::uint64_t per_group = block_size * 8;
    const std::uint64_t end = std::min(le(disk, 1024 + 4, 4), disk.size() / block_size);
    const bool flags = (le(disk, 1024 + 100, 4) & 0x410) != 0;
    for (std::uint64_t block = 0; block <= first; ++block)
        if (!is_set(map, block))
            wrong("block before the groups called free:", block);
    for (std::uint64_t group = 0; group * per_group + first < end; ++group) {
        const std::uint64_t desc = (first + 1) * block_size + group * 32;
        const Disk bits = disk.subspan(le(disk, desc, 4) * block_size, block_size);
        // One that was never written, or whose descriptor counts otherwise, frees nothing.
        const bool believed = zeroes_in(bits) == le(disk, desc + 12, 2) &&
                              !(flags && (le(disk, desc + 18, 2) & 2) != 0);
        const std::uint64_t base = group * per_group + first;
        for (std::uint64_t i = 0; i < per_group && base + i < end; ++i)
            if (!is_set(map, base + i) && (!believed || bit_of(bits, i)))
                wrong("block in use called free:", base + i);
    }
}

// ---- ReiserFS ------------------------------------------------------------------------------------

std::uint64_t reiser_bitmap_at(std::uint64_t number, std::uint64_t block_size) {
    return number == 0 ? 65536 + block_size : number * block_size * 8 * block_size;
}

void check_reiser(Disk disk, const Bits &map, std::uint64_t block_size) {
    const std::uint64_t per_bitmap = block_size * 8;
    const std::uint64_t count = le(disk, 65536, 4);
    const std::uint64_t end = std::min(count, disk.size() / block_size);
    std::uint64_t free = 0;
    for (std::uint64_t i = 0; i * per_bitmap < end; ++i) {
        const Disk bits = disk.subspan(reiser_bitmap_at(i, block_size), block_size);
        const std::uint64_t base = i * per_bitmap;
        for (std::uint64_t k = 0; k < per_bitmap && base + k < end; ++k) {
            const bool in_use = bit_of(bits, k);
            free += !in_use;
            if (in_use && !is_set(map, base + k))
                wrong("block in use called free:", base + k);
        }
    }
    if (end == count && count % 8 == 0 && free != le(disk, 65536 + 4, 4))
        wrong("file system with another free count taken:", free);
}

// ---- XFS -----------------------------------------------------------------------------------------

struct Extent {
    std::uint64_t start, end;  // AG-relative blocks
};

// The extents of one AG's tree by block number, from the first leaf along the chain; nothing where it
// can't be followed to its end.
std::optional<std::vector<Extent>> xfs_extents(Disk disk, std::uint64_t ag_start,
                                               std::uint64_t root, std::uint64_t block_size) {
    const auto node_of = [&](std::uint64_t block) -> std::optional<Disk> {
        const std::uint64_t at = (ag_start + block) * block_size;
        if (!has(disk, at, block_size) || be(disk, at, 4) != 0x41425442)
            return std::nullopt;
        return disk.subspan(at, block_size);
    };
    std::optional<Disk> node = node_of(root);
    for (int height = 0; node && be(*node, 4, 2) != 0; ++height) {
        if (height == 40)
            return std::nullopt;
        node = node_of(be(*node, 16 + (block_size - 16) / 12 * 8, 4));
    }
    std::vector<Extent> extents;
    extents.reserve(64);
    for (std::uint64_t leaves = 0; node; ++leaves) {
        if (leaves > disk.size() / block_size || be(*node, 4, 2) != 0)
            return std::nullopt;
        const std::uint64_t records = std::min(be(*node, 6, 2), (block_size - 16) / 8);
        for (std::uint64_t k = 0; k < records; ++k) {
            const std::uint64_t start = be(*node, 16 + k * 8, 4);
            extents.push_back({start, start + be(*node, 20 + k * 8, 4)});
        }
        const std::uint64_t right = be(*node, 12, 4);
        if (right == 0xffffffff)
            return extents;
        node = node_of(right);
    }
    return std::nullopt;
}

void check_xfs(Disk disk, const Bits &map, std::uint64_t block_size) {
    const std::uint64_t per_ag = be(disk, 84, 4);
    const std::uint64_t end = std::min(be(disk, 8, 8), disk.size() / block_size);
    for (std::uint64_t ag = 0; ag < be(disk, 88, 4) && ag * per_ag < end; ++ag) {
        const std::uint64_t start = ag * per_ag;
        const std::uint64_t header = start * block_size + 512;
        const auto extents = xfs_extents(disk, start, be(disk, header + 16, 4), block_size);
        if (!extents)
            wrong("tree that can't be followed taken, of AG", ag);
        std::uint64_t counted = 0;
        auto extent = extents->begin();
        for (const Extent &each : *extents)
            counted += each.end - each.start;
        if (counted != be(disk, header + 52, 4))
            wrong("AG with another free count taken:", counted);
        if (!is_set(map, start))
            wrong("superblock called free:", start);
        for (std::uint64_t r = 0; r < per_ag && start + r < end; ++r) {
            while (extent != extents->end() && extent->end <= r)
                ++extent;
            const bool free = extent != extents->end() && extent->start <= r;
            if (!free && !is_set(map, start + r))
                wrong("block in use called free:", start + r);
        }
    }
}

// ---- counts --------------------------------------------------------------------------------------

struct Mender {
    std::span<std::uint8_t> disk;
    std::vector<Undo> &undo;

    void put(std::uint64_t at, std::uint8_t value) const {
        undo.push_back({at, disk[at]});
        disk[at] = value;
    }
    void put_le(std::uint64_t at, std::uint64_t value, unsigned width) const {
        for (unsigned i = 0; i < width; ++i)
            put(at + i, static_cast<std::uint8_t>(value >> (8 * i)));
    }
    void put_be(std::uint64_t at, std::uint64_t value, unsigned width) const {
        for (unsigned i = 0; i < width; ++i)
            put(at + i, static_cast<std::uint8_t>(value >> (8 * (width - 1 - i))));
    }
};

constexpr std::uint64_t kMostGroups = 16;  // that are mended

void mend_ext2(const Mender &mender) {
    const Disk disk = mender.disk;
    const std::uint64_t shift = le(disk, 1024 + 24, 4);
    const std::uint64_t first = le(disk, 1024 + 20, 4);
    if (shift > 2)
        return;
    const std::uint64_t block_size = std::uint64_t{1024} << shift;
    const std::uint64_t groups = le(disk, 1024 + 4, 4) / (block_size * 8) + 1;
    for (std::uint64_t group = 0; group < std::min(groups, kMostGroups); ++group) {
        const std::uint64_t desc = (first + 1) * block_size + group * 32;
        if (!has(disk, desc, 32))
            return;
        const std::uint64_t bitmap = le(disk, desc, 4) * block_size;
        if (has(disk, bitmap, block_size))
            mender.put_le(desc + 12, zeroes_in(disk.subspan(bitmap, block_size)), 2);
    }
}

void mend_reiser(const Mender &mender) {
    const Disk disk = mender.disk;
    const std::uint64_t block_size = le(disk, 65536 + 44, 2);
    const std::uint64_t count = le(disk, 65536, 4);
    if (!std::has_single_bit(block_size) || block_size < 512 || block_size > 4096)
        return;
    const std::uint64_t bitmaps = (count + block_size * 8 - 1) / (block_size * 8);
    if (bitmaps > kMostGroups)
        return;
    std::uint64_t free = 0;
    for (std::uint64_t i = 0; i < bitmaps; ++i) {
        const std::uint64_t at = reiser_bitmap_at(i, block_size);
        if (!has(disk, at, block_size))
            return;
        // A count that is no multiple of 8 counts whole blocks.
        const std::uint64_t bits = std::min(block_size * 8, count - i * block_size * 8);
        const Disk counted = disk.subspan(at, count % 8 == 0 ? bits / 8 : block_size);
        for (const std::uint8_t byte : counted)
            free += 8 - static_cast<std::uint64_t>(std::popcount(byte));
    }
    mender.put_le(65536 + 4, free, 4);
    mender.put_le(65536 + 70, bitmaps, 2);
}

void mend_xfs(const Mender &mender) {
    const Disk disk = mender.disk;
    const std::uint64_t block_size = be(disk, 4, 4);
    const std::uint64_t per_ag = be(disk, 84, 4);
    if (!std::has_single_bit(block_size) || block_size < 512 || block_size > 4096)
        return;
    for (std::uint64_t ag = 0; ag < std::min(be(disk, 88, 4), kMostGroups); ++ag) {
        const std::uint64_t header = ag * per_ag * block_size + 512;
        if (!has(disk, header, 512))
            return;
        const auto extents = xfs_extents(disk, ag * per_ag, be(disk, header + 16, 4), block_size);
        if (!extents)
            continue;
        std::uint64_t free = 0;
        for (const Extent &extent : *extents)
            free += extent.end - extent.start;
        mender.put_be(header + 52, free, 4);
    }
}

}  // namespace

void check_map(ReaderImage kind, Disk disk, const Bits &map, std::uint32_t block_size) {
    if (kind == ReaderImage::kExt2)
        check_ext2(disk, map, block_size);
    else if (kind == ReaderImage::kReiser)
        check_reiser(disk, map, block_size);
    else
        check_xfs(disk, map, block_size);
}

void mend_counts(ReaderImage kind, std::span<std::uint8_t> disk, std::vector<Undo> &undo) {
    const Mender mender{disk, undo};
    if (kind == ReaderImage::kExt2)
        mend_ext2(mender);
    else if (kind == ReaderImage::kReiser)
        mend_reiser(mender);
    else
        mend_xfs(mender);
}

}  // namespace fuzz
