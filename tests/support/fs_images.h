// tests/support/fs_images.h: small file systems as their published formats lay them out
// SPDX-License-Identifier: GPL-2.0-only
//
// Each image knows which blocks are in use and gives its metadata as pieces, to be put on a disk; data
// blocks are left as they are. Nothing here comes from the readers.
#ifndef TRAK_TESTS_SUPPORT_FS_IMAGES_H
#define TRAK_TESTS_SUPPORT_FS_IMAGES_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace fs_images {

using Bytes = std::vector<std::uint8_t>;

struct Piece {
    std::uint64_t offset;  // on the disk
    Bytes bytes;
};
using Pieces = std::vector<Piece>;

inline void put_le(Bytes &bytes, std::size_t at, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i)
        bytes.at(at + static_cast<std::size_t>(i)) = static_cast<std::uint8_t>(value >> (8 * i));
}
inline void put_be(Bytes &bytes, std::size_t at, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i)
        bytes.at(at + static_cast<std::size_t>(i)) =
            static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
}
inline void set_bit(Bytes &bits, std::uint64_t n) {
    bits.at(n / 8) = static_cast<std::uint8_t>(bits.at(n / 8) | 1u << (n % 8));
}

// ---- ext2 ------------------------------------------------------------------------------------

struct Ext2 {
    std::uint32_t block_size;
    std::uint32_t blocks;
    std::uint32_t first;      // data block
    std::uint32_t per_group;  // blocks
    std::uint32_t groups;
    std::uint32_t desc_blocks;
    std::vector<bool> used;  // by block; metadata is

    Ext2(std::uint32_t block_size_, std::uint32_t blocks_)
        : block_size(block_size_), blocks(blocks_), first(block_size_ == 1024 ? 1 : 0),
          per_group(block_size_ * 8), groups((blocks_ - first + per_group - 1) / per_group),
          desc_blocks((groups * 32 + block_size_ - 1) / block_size_), used(blocks_) {
        for (std::uint32_t b = 0; b < bitmap_block(groups); ++b)
            used.at(b) = true;
    }

    // All bitmaps lie in a row after the descriptors.
    std::uint32_t bitmap_block(std::uint32_t group) const {
        return first + 1 + desc_blocks + group;
    }
    std::uint64_t bitmap_at(std::uint32_t group) const {
        return std::uint64_t{bitmap_block(group)} * block_size;
    }
    std::uint64_t desc_at(std::uint32_t group) const {
        return (std::uint64_t{first} + 1) * block_size + std::uint64_t{group} * 32;
    }
    std::uint64_t bytes() const { return std::uint64_t{blocks} * block_size; }

    Bytes bitmap(std::uint32_t group) const {
        Bytes bits(block_size);
        for (std::uint32_t i = 0; i < per_group; ++i) {
            const std::uint64_t block = std::uint64_t{group} * per_group + first + i;
            if (block >= blocks || used[block])
                set_bit(bits, i);
        }
        return bits;
    }
    std::uint32_t free_in(std::uint32_t group) const {
        std::uint32_t count = 0;
        for (std::uint32_t i = 0; i < per_group; ++i) {
            const std::uint64_t block = std::uint64_t{group} * per_group + first + i;
            count += block < blocks && !used[block];
        }
        return count;
    }
    Pieces pieces() const {
        Bytes super(1024);
        put_le(super, 4, blocks, 4);
        put_le(super, 20, first, 4);
        std::uint32_t shift = 0;
        while ((1024u << shift) < block_size)
            ++shift;
        put_le(super, 24, shift, 4);
        put_le(super, 32, per_group, 4);
        put_le(super, 40, 128, 4);
        put_le(super, 56, 0xEF53, 2);
        Pieces all{{1024, super}};
        Bytes descs(std::size_t{desc_blocks} * block_size);
        for (std::uint32_t g = 0; g < groups; ++g) {
            put_le(descs, std::size_t{g} * 32, bitmap_block(g), 4);
            put_le(descs, std::size_t{g} * 32 + 12, free_in(g), 2);
        }
        all.push_back({desc_at(0), descs});
        for (std::uint32_t g = 0; g < groups; ++g)
            all.push_back({bitmap_at(g), bitmap(g)});
        return all;
    }
};

// ---- ReiserFS --------------------------------------------------------------------------------

struct Reiser {
    std::uint32_t block_size;
    std::uint32_t blocks;
    std::uint32_t bits;  // per bitmap block
    std::uint32_t bitmaps;
    std::vector<bool> used;  // by block; metadata is

    static constexpr std::uint32_t kJournalBlocks = 8;
    static constexpr std::uint64_t kSuperAt = 65536;

    Reiser(std::uint32_t block_size_, std::uint32_t blocks_)
        : block_size(block_size_), blocks(blocks_), bits(block_size_ * 8),
          bitmaps((blocks_ + bits - 1) / bits), used(blocks_) {
        for (std::uint32_t b = 0; b <= journal_header(); ++b)
            used.at(b) = true;
        for (std::uint32_t i = 0; i < bitmaps; ++i)
            used.at(bitmap_block(i)) = true;
    }

    std::uint32_t bitmap_block(std::uint32_t i) const {
        return i == 0 ? 65536 / block_size + 1 : i * bits;
    }
    std::uint32_t journal() const { return 65536 / block_size + 2; }
    std::uint32_t journal_header() const { return journal() + kJournalBlocks; }
    std::uint64_t at(std::uint32_t block) const { return std::uint64_t{block} * block_size; }
    std::uint64_t bytes() const { return at(blocks); }

    Bytes bitmap(std::uint32_t i) const {
        Bytes map(block_size);
        for (std::uint32_t k = 0; k < bits; ++k) {
            const std::uint64_t block = std::uint64_t{i} * bits + k;
            if (block >= blocks || used[block])
                set_bit(map, k);
        }
        return map;
    }
    std::uint32_t free_blocks() const {
        return static_cast<std::uint32_t>(std::count(used.begin(), used.end(), false));
    }
    // A journal whose only transaction, if any, begins at its first block.
    Bytes transaction(std::uint32_t id) const {
        Bytes block(block_size);
        put_le(block, 0, id, 4);
        const std::string_view magic = "ReIsErLB";
        std::memcpy(block.data() + block_size - 12, magic.data(), magic.size());
        return block;
    }
    Pieces pieces() const {
        Bytes super(512);
        put_le(super, 0, blocks, 4);
        put_le(super, 4, free_blocks(), 4);
        put_le(super, 12, journal(), 4);
        put_le(super, 20, kJournalBlocks, 4);
        put_le(super, 44, block_size, 2);
        put_le(super, 50, 1, 2);
        const std::string_view magic = "ReIsEr2Fs";
        std::memcpy(super.data() + 52, magic.data(), magic.size());
        put_le(super, 70, bitmaps, 2);
        put_le(super, 72, 2, 2);
        put_le(super, 76, 7, 4);
        Pieces all{{kSuperAt, super}};
        for (std::uint32_t i = 0; i < bitmaps; ++i)
            all.push_back({at(bitmap_block(i)), bitmap(i)});
        all.push_back({at(journal_header()), Bytes(block_size)});
        return all;
    }
};

// ---- XFS -------------------------------------------------------------------------------------

struct Extent {
    std::uint32_t start;  // AG-relative block
    std::uint32_t count;
};

struct Xfs {
    std::uint32_t block_size;
    std::uint32_t ag_blocks;
    std::uint32_t ags;
    std::uint64_t blocks;  // the last AG is the shorter one
    std::uint16_t sector_size = 512;
    std::uint32_t per_leaf;                 // records, at the most
    std::uint32_t per_node;                 // children, at the most
    std::vector<std::vector<Extent>> free;  // by AG, rising

    static constexpr std::uint32_t kNone = 0xFFFFFFFF;
    static constexpr std::uint32_t kTreeAt = 4;  // first block of the tree's nodes

    Xfs(std::uint32_t block_size_, std::uint32_t ag_blocks_, std::uint64_t blocks_)
        : block_size(block_size_), ag_blocks(ag_blocks_),
          ags(static_cast<std::uint32_t>((blocks_ + ag_blocks_ - 1) / ag_blocks_)), blocks(blocks_),
          per_leaf((block_size_ - 16) / 8), per_node((block_size_ - 16) / 12), free(ags) {}

    std::uint32_t length(std::uint32_t ag) const {
        return static_cast<std::uint32_t>(
            std::min<std::uint64_t>(ag_blocks, blocks - std::uint64_t{ag} * ag_blocks));
    }
    std::uint64_t at(std::uint32_t ag, std::uint32_t block) const {
        return (std::uint64_t{ag} * ag_blocks + block) * block_size;
    }
    std::uint64_t header_at(std::uint32_t ag) const { return at(ag, 0) + 512; }
    std::uint64_t bytes() const { return blocks * block_size; }

    // Nodes of an AG's tree by level, leaves first: first record and number of records of each.
    struct Node {
        std::uint32_t block, first, count;
    };
    std::vector<std::vector<Node>> tree(std::uint32_t ag) const {
        std::vector<std::vector<Node>> levels;
        std::uint32_t next = kTreeAt;
        auto entries = static_cast<std::uint32_t>(free[ag].size());
        std::uint32_t most = per_leaf;
        do {
            std::vector<Node> level;
            std::uint32_t first = 0;
            do {
                const std::uint32_t count = std::min(most, entries - first);
                level.push_back({next++, first, count});
                first += count;
            } while (first < entries);
            entries = static_cast<std::uint32_t>(level.size());
            most = per_node;
            levels.push_back(level);
        } while (entries > 1);
        return levels;
    }
    std::uint32_t root(std::uint32_t ag) const { return tree(ag).back().front().block; }
    std::uint64_t node_at(std::uint32_t ag, std::size_t level, std::size_t index) const {
        return at(ag, tree(ag).at(level).at(index).block);
    }
    // Where the record or key k lies in a node, and child pointer k.
    static std::size_t record(std::size_t k) { return 16 + k * 8; }
    std::size_t pointer(std::size_t k) const {
        return 16 + std::size_t{(block_size - 16) / 12} * 8 + k * 4;
    }

    Bytes super() const {
        Bytes bytes(512);
        put_be(bytes, 0, 0x58465342, 4);
        put_be(bytes, 4, block_size, 4);
        put_be(bytes, 8, blocks, 8);
        put_be(bytes, 84, ag_blocks, 4);
        put_be(bytes, 88, ags, 4);
        put_be(bytes, 100, 4, 2);
        put_be(bytes, 102, sector_size, 2);
        return bytes;
    }
    Bytes header(std::uint32_t ag) const {
        Bytes bytes(512);
        std::uint64_t count = 0;
        for (const Extent &extent : free[ag])
            count += extent.count;
        put_be(bytes, 0, 0x58414746, 4);
        put_be(bytes, 4, 1, 4);
        put_be(bytes, 8, ag, 4);
        put_be(bytes, 12, length(ag), 4);
        put_be(bytes, 16, root(ag), 4);
        put_be(bytes, 20, 3, 4);
        put_be(bytes, 28, tree(ag).size(), 4);
        put_be(bytes, 32, 1, 4);
        put_be(bytes, 52, count, 4);
        return bytes;
    }
    Bytes node(std::uint32_t ag, std::size_t level, std::size_t index) const {
        const auto levels = tree(ag);
        const Node &is = levels[level][index];
        Bytes bytes(block_size);
        put_be(bytes, 0, 0x41425442, 4);
        put_be(bytes, 4, level, 2);
        put_be(bytes, 6, is.count, 2);
        put_be(bytes, 8, index > 0 ? levels[level][index - 1].block : kNone, 4);
        put_be(bytes, 12, index + 1 < levels[level].size() ? levels[level][index + 1].block : kNone,
               4);
        for (std::uint32_t k = 0; k < is.count; ++k) {
            std::uint32_t record_of_key = is.first + k;
            for (std::size_t below = level; below > 0; --below)
                record_of_key = levels[below - 1][record_of_key].first;
            const Extent &extent = free[ag].at(record_of_key);
            put_be(bytes, record(k), extent.start, 4);
            put_be(bytes, record(k) + 4, extent.count, 4);
            if (level > 0)
                put_be(bytes, pointer(k), levels[level - 1][is.first + k].block, 4);
        }
        return bytes;
    }
    Pieces pieces() const {
        Pieces all;
        for (std::uint32_t ag = 0; ag < ags; ++ag) {
            all.push_back({at(ag, 0), super()});
            all.push_back({header_at(ag), header(ag)});
            const auto levels = tree(ag);
            for (std::size_t level = 0; level < levels.size(); ++level)
                for (std::size_t i = 0; i < levels[level].size(); ++i)
                    all.push_back({node_at(ag, level, i), node(ag, level, i)});
        }
        return all;
    }
    // One free extent covers all of [block, block + count).
    bool is_free(std::uint64_t block, std::uint64_t count) const {
        const std::uint64_t ag = block / ag_blocks;
        const std::uint64_t r = block % ag_blocks;
        if (ag >= ags)
            return true;
        auto after = std::upper_bound(
            free[ag].begin(), free[ag].end(), r,
            [](std::uint64_t block_, const Extent &extent) { return block_ < extent.start; });
        if (after == free[ag].begin())
            return false;
        --after;
        return r + count <= std::uint64_t{after->start} + after->count;
    }
};

}  // namespace fs_images

#endif
