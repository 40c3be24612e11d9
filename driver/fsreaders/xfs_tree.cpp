// driver/fsreaders/xfs_tree.cpp: the free-space trees of XFS
// SPDX-License-Identifier: GPL-2.0-only
//
// The tree of an AG by block number lists its free extents in rising order; its leaves are chained to
// the right. A query follows the chain from the leaf where the one before ended, or from the first leaf.
//
// A damaged tree must not call a block free. Before an AG is used its whole chain of leaves is walked
// once: extents must rise without touching each other's blocks, leave out the AG's first block, which
// holds its superblock, lie within the AG and add up to the free blocks of the AG's header. Only leaves
// of that chain are believed: the keys of a damaged inner node may lead to one that was given up long
// ago. Descents are bounded by the greatest height that a tree of 32-bit block numbers can have, chains
// by the number of the AG's blocks.
#include "driver/fsreaders/xfs_tree.h"

#include "driver/fsreaders/disk_fields.h"
#include "driver/module/log.h"
#include "driver/utils/bits.h"
#include "driver/utils/trak_utils.h"

namespace {

constexpr std::uint32_t kTreeMagic = 0x41425442;
constexpr std::uint32_t kNoSibling = 0xFFFFFFFF;
constexpr std::uint32_t kHeaderSize = 16;
constexpr std::uint32_t kRecordSize = 8;
constexpr std::uint32_t kKeyAndPointer = 12;
constexpr int kMaxHeight = 32;

// A place in the chain of leaves: the leaf is in ctx->node.
struct Cursor {
    xfs_reader *ctx;
    const char *function;
    std::uint64_t ag_start;  // absolute block
    std::uint32_t ag_length;
    std::uint32_t leaf;    // AG-relative block; kNoSibling: the first leaf
    std::uint32_t index;   // of the current record in the leaf
    std::uint32_t leaves;  // read so far
    bool ended;            // no current record any more
};

std::uint32_t records_of(const xfs_reader *ctx) {
    const std::uint32_t room = (ctx->sb.sb_blocksize - kHeaderSize) / kRecordSize;
    const std::uint32_t stated = trak_be16(ctx->node + 6);
    return stated < room ? stated : room;
}

// Reads one tree block: 0, or the reason was logged.
int read_node(xfs_reader *ctx, std::uint64_t block, const char *function) {
    const int rc = trak_bread(ctx->bdev, ctx->node, static_cast<int>(ctx->sb.sb_blocksize),
                              static_cast<std::int64_t>(block), 1);
    if (rc < 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to read AGF node from block %lld: rc=%d", function,
                 static_cast<long long>(block), rc);
        return rc;
    }
    const std::uint32_t magic = trak_be32(ctx->node);
    if (magic != kTreeMagic) {
        trak_log(TRAK_LOG_ERROR, "%s(): Invalid B+tree node block magic: 0x%08x instead of 0x%08x",
                 function, magic, kTreeMagic);
        return -EINVAL;
    }
    return 0;
}

int damaged(const char *function, const char *what) {
    trak_log(TRAK_LOG_ERROR, "%s(): Damaged B+tree of free extents: %s.", function, what);
    return -EINVAL;
}

// The child of the interior node in ctx->node that may hold the target.
std::uint32_t child_for(const xfs_reader *ctx, std::uint32_t target) {
    const std::uint32_t room = (ctx->sb.sb_blocksize - kHeaderSize) / kKeyAndPointer;
    const std::uint32_t stated = trak_be16(ctx->node + 6);
    const std::uint32_t keys = stated < room ? stated : room;
    std::uint32_t chosen = 0;
    for (std::uint32_t k = 0; k < keys; ++k) {
        if (target < trak_be32(ctx->node + kHeaderSize + std::size_t{k} * kRecordSize))
            break;
        chosen = k;
    }
    return trak_be32(ctx->node + kHeaderSize + std::size_t{room} * kRecordSize +
                     std::size_t{chosen} * 4);
}

std::uint64_t record_start(const Cursor &at) {
    return trak_be32(at.ctx->node + kHeaderSize + std::size_t{at.index} * kRecordSize);
}
std::uint64_t record_end(const Cursor &at) {
    return record_start(at) +
           trak_be32(at.ctx->node + kHeaderSize + std::size_t{at.index} * kRecordSize + 4);
}

// Goes on to a record that exists, over leaves without any: 0 or a negative errno.
int settle(Cursor *at) {
    while (!at->ended && at->index >= records_of(at->ctx)) {
        const std::uint32_t right = trak_be32(at->ctx->node + 12);
        if (right == kNoSibling) {
            at->ended = true;
            break;
        }
        if (++at->leaves > at->ag_length)
            return damaged(at->function, "a chain of leaves without end");
        const int rc = read_node(at->ctx, at->ag_start + right, at->function);
        if (rc < 0)
            return rc;
        if (trak_be16(at->ctx->node + 4) != 0)
            return damaged(at->function, "a sibling that is no leaf");
        at->index = 0;
        at->leaf = right;
    }
    return 0;
}

// Points the cursor at the first record of the AG's first leaf, or of a leaf that it was at before.
int begin(Cursor *at, std::uint32_t leaf, std::uint32_t root) {
    const int rc = leaf == kNoSibling ? xfs_find_leaf(at->ctx, 0, at->ag_start, root)
                                      : read_node(at->ctx, at->ag_start + leaf, at->function);
    if (rc < 0)
        return rc;
    at->leaf = leaf;
    at->index = 0;
    at->leaves = 1;
    at->ended = false;
    return settle(at);
}

int advance(Cursor *at) {
    ++at->index;
    return settle(at);
}

// Walks all extents of the AG once: 0 when they are what the AG's header says.
int check_tree(Cursor *at, std::uint32_t ag) {
    int rc = begin(at, kNoSibling, at->ctx->bno_root[ag]);
    std::uint64_t free_blocks = 0;
    std::uint64_t end_before = 1;
    while (rc == 0 && !at->ended) {
        if (record_start(*at) < end_before || record_end(*at) <= record_start(*at))
            return damaged(at->function, "extents that do not rise");
        if (record_end(*at) > at->ag_length)
            return damaged(at->function, "an extent beyond the AG");
        free_blocks += record_end(*at) - record_start(*at);
        end_before = record_end(*at);
        rc = advance(at);
    }
    if (rc == 0 && free_blocks != at->ctx->ag_free[ag])
        return damaged(at->function, "another number of free blocks than its AG states");
    return rc;
}

// Points the cursor at an extent of the AG at or before the first one that may cover AG-relative block r.
int enter_ag(Cursor *at, std::uint32_t ag, std::uint32_t r) {
    xfs_reader *ctx = at->ctx;
    at->ag_start = std::uint64_t{ag} * ctx->sb.sb_agblocks;
    at->ag_length = ctx->ag_length[ag];
    if (ctx->trusted_ag != ag) {
        ctx->trusted_ag = -1;
        const int rc = check_tree(at, ag);
        if (rc < 0)
            return rc;
        ctx->trusted_ag = ag;
        ctx->last_leaf = kNoSibling;
        ctx->last_block = 0;
    }
    if (r < ctx->last_block) {
        ctx->last_leaf = kNoSibling;
        ctx->last_block = 0;
    }
    return begin(at, ctx->last_leaf, ctx->bno_root[ag]);
}

}  // namespace

int xfs_find_leaf(xfs_reader *ctx, std::uint32_t target, std::uint64_t ag_start,
                  std::uint32_t block) {
    int level_before = kMaxHeight;
    for (;;) {
        const int rc = read_node(ctx, ag_start + block, __func__);
        if (rc < 0)
            return rc;
        const int level = trak_be16(ctx->node + 4);
        if (level == 0)
            return 0;
        // Levels fall on the way down, so a loop in a damaged tree ends here.
        if (level >= level_before)
            return damaged(__func__, "levels that do not fall");
        level_before = level;
        block = child_for(ctx, target);
    }
}

int xfs_mark_chunks(xfs_reader *ctx, std::uint32_t first, std::uint64_t ratio, std::uint8_t *out,
                    std::int32_t count, const char *function) {
    Cursor at{ctx, function, 0, 0, kNoSibling, 0, 0, true};
    std::uint64_t r = 0;
    for (std::int32_t k = 0; k < count; ++k, r += ratio) {
        int rc = 0;
        if (k == 0 || r >= at.ag_length) {
            const std::uint64_t block = (std::uint64_t{first} + static_cast<unsigned>(k)) * ratio;
            const std::uint64_t ag = block / ctx->sb.sb_agblocks;
            if (ag >= ctx->sb.sb_agcount)
                return 0;
            r = block % ctx->sb.sb_agblocks;
            rc = enter_ag(&at, static_cast<std::uint32_t>(ag), static_cast<std::uint32_t>(r));
        }
        while (rc == 0 && !at.ended && record_end(at) <= r)
            rc = advance(&at);
        if (rc < 0)
            return rc;
        ctx->last_leaf = at.leaf;
        ctx->last_block = r;
        const bool free = !at.ended && record_start(at) <= r && record_end(at) >= r + ratio;
        if (!free) {
            (void)trak_test_and_set_bit(out, static_cast<std::uint64_t>(k));
            continue;
        }
        // The extent may cover many chunks: their bits stay clear.
        const std::uint64_t covered = (record_end(at) - r) / ratio - 1;
        const auto left = static_cast<std::uint64_t>(count - 1 - k);
        const std::uint64_t skipped = covered < left ? covered : left;
        k += static_cast<std::int32_t>(skipped);
        r += skipped * ratio;
    }
    return 0;
}
