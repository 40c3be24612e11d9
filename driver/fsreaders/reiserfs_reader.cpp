// driver/fsreaders/reiserfs_reader.cpp: allocated blocks of a ReiserFS (format 3.6) file system
// SPDX-License-Identifier: GPL-2.0-only
//
// The superblock lies at byte 65536. Bitmap block 0 is the block after it; bitmap block i is block
// i * bits_per_bitmap. The free blocks that the bitmaps hold are counted when the reader is made: a
// file system whose own count differs is not used at all. Nor is one whose journal holds a
// transaction that was not written home, since its bitmaps are behind.
#include "driver/fsreaders/reiserfs_reader.h"

#include "driver/fsreaders/chunk_walk.h"
#include "driver/fsreaders/disk_fields.h"
#include "driver/module/log.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "driver/utils/trak_utils.h"
#include "os/memory.h"

namespace {

constexpr std::uint32_t kSuperOffset = 65536;
constexpr std::uint32_t kFirstSize = 4096;  // of the buffer, before the block size is known

// Superblock fields, by offset.
constexpr int kBlockCount = 0;
constexpr int kFreeBlocks = 4;
constexpr int kJournalStart = 12;
constexpr int kJournalDev = 16;
constexpr int kJournalSize = 20;
constexpr int kBlockSize = 44;
constexpr int kUmountState = 50;
constexpr int kMagicAt = 52;
constexpr int kMagicEnd = 63;
constexpr int kBitmaps = 70;
constexpr int kVersion = 72;
constexpr int kGeneration = 76;

// The journal's header block, and the block that begins a transaction.
constexpr int kLastFlushed = 0;
constexpr int kFirstUnflushed = 4;
constexpr int kTransaction = 0;
constexpr int kDescMagicFromEnd = 12;

#define HDD(bdev) os_major(os_bdev_dev(bdev)), os_minor(os_bdev_dev(bdev))

std::uint32_t block_size_of(const reiserfs_reader *ctx) {
    return trak_le16(ctx->sb + kBlockSize);
}
std::uint32_t block_count_of(const reiserfs_reader *ctx) {
    return trak_le32(ctx->sb + kBlockCount);
}
std::uint32_t bitmaps_of(const reiserfs_reader *ctx) {
    return trak_le16(ctx->sb + kBitmaps);
}

std::int64_t bitmap_location(const reiserfs_reader *ctx, std::uint64_t number) {
    return number == 0 ? ctx->first_bitmap_block
                       : static_cast<std::int64_t>(number) * ctx->bits_per_bitmap;
}

int read_block(reiserfs_reader *ctx, std::int64_t block) {
    return trak_bread(ctx->bdev, ctx->bitmap, static_cast<int>(block_size_of(ctx)), block, 1);
}

// The superblock into the context; false when this is no ReiserFS.
bool read_super(reiserfs_reader *ctx, const char *function) {
    const int rc = trak_bread(ctx->bdev, ctx->bitmap, kFirstSize, kSuperOffset / kFirstSize, 1);
    if (rc < 0) {
        trak_log(TRAK_LOG_ERROR,
                 "%s(): Failed to read Super Block of hdd(%d, %d) at offset 65536: rc=%d", function,
                 HDD(ctx->bdev), rc);
        return false;
    }
    memcpy(ctx->sb, ctx->bitmap, sizeof ctx->sb);
    ctx->sb[kMagicEnd] = 0;
    if (rc != 0 ||
        trak_strcmp(reinterpret_cast<const char *>(ctx->sb + kMagicAt), "ReIsEr2Fs") != 0) {
        trak_log(TRAK_LOG_DETAIL, "%s(): hdd(%d, %d) doesn't have ReiserFS.", function,
                 HDD(ctx->bdev));
        return false;
    }
    return true;
}

bool resize_buffer(reiserfs_reader *ctx, const char *function) {
    if (block_size_of(ctx) == kFirstSize)
        return true;
    os_kfree(ctx->bitmap);
    ctx->bitmap = static_cast<std::uint8_t *>(os_kmalloc(block_size_of(ctx), OS_GFP_KERNEL));
    if (ctx->bitmap == nullptr)
        trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failed.", function);
    return ctx->bitmap != nullptr;
}

void describe(const reiserfs_reader *ctx, const char *function) {
    const unsigned state = trak_le16(ctx->sb + kUmountState);
    trak_log(TRAK_LOG_COMMAND, "%s(): Detected ReiserFS on hdd(%d, %d)", function, HDD(ctx->bdev));
    trak_log(TRAK_LOG_COMMAND, "   magic=\"%s\"",
             reinterpret_cast<const char *>(ctx->sb + kMagicAt));
    trak_log(TRAK_LOG_COMMAND, "   block_size=%d", block_size_of(ctx));
    trak_log(TRAK_LOG_COMMAND, "   block_count=%d", block_count_of(ctx));
    trak_log(TRAK_LOG_COMMAND, "   free_count=%d", trak_le32(ctx->sb + kFreeBlocks));
    trak_log(TRAK_LOG_COMMAND, "   bitmaps=%d", bitmaps_of(ctx));
    trak_log(TRAK_LOG_COMMAND, "   state=%d (%s)", state, state == 1 ? "VALID" : "ERROR");
    trak_log(TRAK_LOG_COMMAND, "   version=%d", trak_le16(ctx->sb + kVersion));
    trak_log(TRAK_LOG_COMMAND, "   inode_generation=%d", trak_le32(ctx->sb + kGeneration));
}

// Sizes that the walk divides by, and enough bitmap blocks to say something of every block.
bool has_sane_sizes(const reiserfs_reader *ctx, const char *function) {
    const std::uint32_t size = block_size_of(ctx);
    if (trak_is_power_of_two(size) && size >= OS_SECTOR_SIZE) {
        const std::uint64_t bits = std::uint64_t{size} * 8;
        if ((block_count_of(ctx) + bits - 1) / bits == bitmaps_of(ctx))
            return true;
    }
    trak_log(TRAK_LOG_ERROR,
             "%s(): hdd(%d, %d) can't have %u blocks of %u bytes in %u bitmap blocks.", function,
             HDD(ctx->bdev), block_count_of(ctx), size, bitmaps_of(ctx));
    return false;
}

// Counts the free blocks of all bitmap blocks: 0 or the first read that failed.
int count_free(reiserfs_reader *ctx, std::uint32_t *free_blocks, const char *function) {
    std::uint8_t zeroes[256];
    for (unsigned value = 0; value < 256; ++value)
        zeroes[value] = static_cast<std::uint8_t>(8 - trak_bits_in_byte(value));
    // Down to exactly zero: a count that is no multiple of 8 runs on over all bytes that follow.
    std::int64_t remaining = block_count_of(ctx);
    int rc = 0;
    *free_blocks = 0;
    for (std::uint32_t i = 0; i < bitmaps_of(ctx); ++i) {
        const std::int64_t block = bitmap_location(ctx, i);
        rc = read_block(ctx, block);
        if (rc < 0) {
            trak_log(TRAK_LOG_ERROR, "%s(): Failed to read Bitmap #%d (from block %d): rc=%d",
                     function, i, static_cast<int>(block), rc);
            return rc;
        }
        for (std::uint32_t byte = 0; byte < block_size_of(ctx) && remaining != 0; ++byte) {
            *free_blocks += zeroes[ctx->bitmap[byte]];
            remaining -= 8;
        }
    }
    ctx->cached_bitmap = static_cast<std::int32_t>(bitmaps_of(ctx));
    return rc;
}

bool counts_agree(reiserfs_reader *ctx, const char *function) {
    std::uint32_t free_blocks = 0;
    const int rc = count_free(ctx, &free_blocks, function);
    if (rc < 0)
        return false;
    const std::uint32_t stated = trak_le32(ctx->sb + kFreeBlocks);
    if (free_blocks != stated) {
        trak_log(TRAK_LOG_ERROR,
                 "%s(): Unexpected inconsistency of ReiserFS SB on hdd=(%d, %d) says that it has "
                 "%d blocks, but bitmaps argue for %d",
                 function, HDD(ctx->bdev), stated, free_blocks);
        return false;
    }
    return rc == 0;
}

// True when no transaction waits in the journal: its header says where the first one that was not
// written home would begin, and none begins there.
bool journal_is_done(reiserfs_reader *ctx, const char *function) {
    const std::uint64_t start = trak_le32(ctx->sb + kJournalStart);
    const std::uint32_t size = trak_le32(ctx->sb + kJournalSize);
    bool known = trak_le32(ctx->sb + kJournalDev) == 0 && size != 0 &&
                 read_block(ctx, static_cast<std::int64_t>(start + size)) == 0;
    if (known) {
        const std::uint32_t flushed = trak_le32(ctx->bitmap + kLastFlushed);
        const std::uint32_t next = trak_le32(ctx->bitmap + kFirstUnflushed) % size;
        known = read_block(ctx, static_cast<std::int64_t>(start + next)) == 0;
        const std::uint8_t *magic = ctx->bitmap + block_size_of(ctx) - kDescMagicFromEnd;
        if (known &&
            (memcmp(magic, "ReIsErLB", 8) != 0 || trak_le32(ctx->bitmap + kTransaction) <= flushed))
            return true;
    }
    trak_log(TRAK_LOG_ERROR, "%s(): The journal of hdd(%d, %d) %s.", function, HDD(ctx->bdev),
             known ? "must be replayed first" : "can't be read");
    return false;
}

void set_geometry(reiserfs_reader *ctx) {
    ctx->bits_per_bitmap = static_cast<std::int32_t>(block_size_of(ctx) * 8);
    ctx->first_bitmap_block = static_cast<std::int32_t>(kSuperOffset / block_size_of(ctx) + 1);
}

bool load(reiserfs_reader *ctx, std::int32_t *block_size, const char *function) {
    if (!read_super(ctx, function))
        return false;
    if (block_size != nullptr)
        *block_size = static_cast<std::int32_t>(block_size_of(ctx));
    if (!resize_buffer(ctx, function))
        return false;
    describe(ctx, function);
    if (!has_sane_sizes(ctx, function))
        return false;
    set_geometry(ctx);
    return counts_agree(ctx, function) && journal_is_done(ctx, function);
}

}  // namespace

void *reiserfs_reader_init(os_bdev *bdev, std::int32_t *block_size) {
    auto *ctx = static_cast<reiserfs_reader *>(os_kzalloc(sizeof(reiserfs_reader), OS_GFP_KERNEL));
    if (ctx == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed");
        return nullptr;
    }
    ctx->bdev = bdev;
    ctx->cached_bitmap = -1;
    ctx->bitmap = static_cast<std::uint8_t *>(os_kmalloc(kFirstSize, OS_GFP_KERNEL));
    if (ctx->bitmap == nullptr)
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
    else if (load(ctx, block_size, __func__))
        return ctx;
    (void)reiserfs_reader_destroy(ctx);
    return nullptr;
}

int reiserfs_reader_read(void *context, std::uint32_t first, std::uint32_t chunk_size,
                         std::uint8_t *out, std::int32_t count) {
    auto *ctx = static_cast<reiserfs_reader *>(context);
    if (ctx == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Invalid reader's context NULL.");
        return -EINVAL;
    }
    if (!trak_chunk_size_is_valid(chunk_size)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Chunk size (%d) must be a power of 2.", chunk_size);
        return -EINVAL;
    }
    if (block_size_of(ctx) > chunk_size) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Chunk size (%d) is smaller than FS block size (%d).",
                  chunk_size, block_size_of(ctx));
        return -EINVAL;
    }
    if (count <= 0)
        return 0;
    memset(out, 0, (static_cast<std::size_t>(count) + 7) / 8);

    const std::uint64_t ratio = chunk_size / block_size_of(ctx);
    const auto bits = static_cast<std::uint64_t>(ctx->bits_per_bitmap);
    trak_chunk_walk walk{out, 0, count, ratio, ratio};
    std::uint64_t bit = first * ratio % bits;
    for (std::uint64_t i = first * ratio / bits; i < bitmaps_of(ctx); ++i) {
        if (ctx->cached_bitmap < 0 || i != static_cast<std::uint64_t>(ctx->cached_bitmap)) {
            ctx->cached_bitmap = -1;
            const int rc = read_block(ctx, bitmap_location(ctx, i));
            if (rc < 0) {
                trak_logf(TRAK_LOG_ERROR, "%s(): Failed to read Bitmap #%d: rc=%d",
                          static_cast<int>(i), rc);
                return rc;
            }
            ctx->cached_bitmap = static_cast<std::int32_t>(i);
        }
        if (!trak_walk_bitmap(&walk, ctx->bitmap, bits, i * bits, block_count_of(ctx), &bit))
            return 0;
        i += bit / bits - 1;  // a skip may pass whole bitmap blocks
        bit %= bits;
    }
    return 0;
}

int reiserfs_reader_destroy(void *context) {
    auto *ctx = static_cast<reiserfs_reader *>(context);
    if (ctx == nullptr)
        return 0;
    os_kfree(ctx->bitmap);
    os_kfree(ctx);
    return 0;
}
