// driver/fsreaders/ext2_reader.cpp: allocated blocks of an ext2 or ext3 file system
// SPDX-License-Identifier: GPL-2.0-only
//
// The superblock lies at byte 1024, the table of group descriptors in the blocks after it, and each
// group's block bitmap where its descriptor says. A group whose free count disagrees with its bitmap
// counts as full: a chunk is called free only where both say so.
//
// Everything that a size or a loop is made from is checked before it is used: the table must lie on the
// disk, and groups have the one size that makes the walk over the bitmaps true.
#include "driver/fsreaders/ext2_reader.h"

#include "driver/fsreaders/chunk_walk.h"
#include "driver/fsreaders/disk_fields.h"
#include "driver/module/log.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "driver/utils/trak_utils.h"
#include "os/memory.h"

namespace {

constexpr std::uint32_t kSuperSize = 1024;
constexpr std::uint16_t kMagic = 0xEF53;
constexpr std::uint32_t kDescSize = 32;

// Superblock fields, by offset.
constexpr int kBlocksCount = 4;
constexpr int kFirstDataBlock = 20;
constexpr int kLogBlockSize = 24;
constexpr int kBlocksPerGroup = 32;
constexpr int kInodesPerGroup = 40;
constexpr int kMagicAt = 56;
constexpr int kIncompat = 96;
constexpr int kRoCompat = 100;

constexpr std::uint32_t kMetaBlockGroups = 0x10;
// Features that leave the bitmaps, and the way to them, what this reader takes them for. Not among them:
// a journal that was not replayed (0x4), a journal without a file system (0x8), descriptors of 64
// bytes (0x80); bits that stand for clusters (0x200), blocks that snapshots share (0x80, 0x4000); and
// whatever is invented later.
constexpr std::uint32_t kIncompatKnown = 0x3F743;
constexpr std::uint32_t kRoCompatKnown = 0x1BD7F;
// Features under which a descriptor's flags tell that its bitmap was never written.
constexpr std::uint32_t kRoCompatFlags = 0x10 | 0x400;

// Descriptor fields, by offset.
constexpr int kDescBitmap = 0;
constexpr int kDescFree = 12;
constexpr int kDescFlags = 18;
constexpr std::uint16_t kBitmapUnwritten = 0x2;

constexpr std::uint32_t kMaxLogBlockSize = 6;

#define HDD(bdev) os_major(os_bdev_dev(bdev)), os_minor(os_bdev_dev(bdev))

// Reads the superblock: 0 when it is an ext2 one, else the reason was logged.
int read_super(os_bdev *bdev, std::uint8_t *super, const char *function) {
    const int rc = trak_bread(bdev, super, kSuperSize, 1, 1);
    if (rc < 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", function,
                 HDD(bdev), rc);
        return rc;
    }
    if (rc != 0 || trak_le16(super + kMagicAt) != kMagic) {
        trak_log(TRAK_LOG_DETAIL, "%s(): hdd(%d, %d) doesn't have ext2/ext3 FS.", function,
                 HDD(bdev));
        return -EINVAL;
    }
    trak_log(TRAK_LOG_COMMAND, "%s(): Detected ext2/ext3 FS on hdd(%d, %d)", function, HDD(bdev));
    return 0;
}

void fill(ext2_reader *ctx, os_bdev *bdev, const std::uint8_t *super) {
    const std::uint32_t shift = trak_le32(super + kLogBlockSize);
    ctx->bdev = bdev;
    ctx->block_size = shift <= kMaxLogBlockSize ? 1024u << shift : 0;
    ctx->blocks_count = trak_le32(super + kBlocksCount);
    ctx->first_data_block = trak_le32(super + kFirstDataBlock);
    ctx->blocks_per_group = trak_le32(super + kBlocksPerGroup);
    ctx->inodes_per_group = trak_le32(super + kInodesPerGroup);
    ctx->cached_group = -1;
    ctx->flags_in_descs = (trak_le32(super + kRoCompat) & kRoCompatFlags) != 0;
}

bool is_corrupt(const ext2_reader *ctx) {
    return ctx->blocks_per_group == 0 || ctx->inodes_per_group == 0 || ctx->blocks_count == 0 ||
           ctx->block_size == 0 || ctx->first_data_block > 1 ||
           ctx->first_data_block >= ctx->blocks_count;
}

// What the superblock may not say, each with its message.
bool is_usable(const ext2_reader *ctx, const std::uint8_t *super, const char *function) {
    const std::uint32_t incompat = trak_le32(super + kIncompat);
    const std::uint32_t ro_compat = trak_le32(super + kRoCompat);
    if (is_corrupt(ctx)) {
        trak_log(TRAK_LOG_ERROR, "%s(): Superblock of hdd(%d, %d) is corrupt.", function,
                 HDD(ctx->bdev));
        return false;
    }
    if ((incompat & kMetaBlockGroups) != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Sorry, we don't support ext2/ext3 with meta block groups.",
                 function);
        return false;
    }
    if ((incompat & ~kIncompatKnown) != 0 || (ro_compat & ~kRoCompatKnown) != 0) {
        trak_log(TRAK_LOG_ERROR,
                 "%s(): hdd(%d, %d) has features that make its bitmaps unreadable: 0x%x, 0x%x",
                 function, HDD(ctx->bdev), incompat, ro_compat);
        return false;
    }
    if (ctx->blocks_per_group != ctx->block_size * 8) {
        trak_log(TRAK_LOG_ERROR, "%s(): hdd(%d, %d) has groups of %u blocks instead of %u.",
                 function, HDD(ctx->bdev), ctx->blocks_per_group, ctx->block_size * 8);
        return false;
    }
    return true;
}

void count_groups(ext2_reader *ctx) {
    const std::uint64_t blocks =
        std::uint64_t{ctx->blocks_count} - 1 - ctx->first_data_block + ctx->blocks_per_group;
    ctx->group_cnt = static_cast<std::uint32_t>(blocks / ctx->blocks_per_group);
    ctx->descs_per_block = ctx->block_size / kDescSize;
    ctx->desc_blocks = (ctx->group_cnt + ctx->descs_per_block - 1) / ctx->descs_per_block;
    trak_log(TRAK_LOG_COMMAND, "   magic=0x%04x", kMagic);
    trak_log(TRAK_LOG_COMMAND, "   block_size=%d", ctx->block_size);
    trak_log(TRAK_LOG_COMMAND, "   blocks_count=%d (%lldMB)", ctx->blocks_count,
             static_cast<long long>(std::uint64_t{ctx->blocks_count} * ctx->block_size >> 20));
    trak_log(TRAK_LOG_COMMAND, "   blocks_per_group=%d", ctx->blocks_per_group);
    trak_log(TRAK_LOG_COMMAND, "   group_desc_count=%d", ctx->group_cnt);
    trak_log(TRAK_LOG_COMMAND, "   desc_blocks=%d", ctx->desc_blocks);
}

bool out_of_memory(const char *function) {
    trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failed.", function);
    return false;
}

// Loads the table of descriptors and makes the buffers; false when the context is of no use.
bool load(ext2_reader *ctx, const char *function) {
    const std::uint64_t table = std::uint64_t{ctx->block_size} * ctx->desc_blocks;
    int rc = -EIO;  // a table beyond the disk can't be read
    if (table <= os_bdev_size(ctx->bdev)) {
        ctx->descs = static_cast<std::uint8_t *>(os_vmalloc(table));
        if (ctx->descs == nullptr)
            return out_of_memory(function);
        rc = trak_bread(ctx->bdev, ctx->descs, static_cast<int>(ctx->block_size),
                        ctx->first_data_block + 1, static_cast<int>(ctx->desc_blocks));
    }
    if (rc < 0) {
        trak_log(TRAK_LOG_ERROR,
                 "%s(): Failed to read Block Group Descriptors of hdd(%d, %d): rc=%d", function,
                 HDD(ctx->bdev), rc);
        return false;
    }
    ctx->bitmap = static_cast<std::uint8_t *>(os_vmalloc(ctx->block_size));
    if (ctx->bitmap == nullptr)
        return out_of_memory(function);
    ctx->bit_count = static_cast<std::uint8_t *>(os_kmalloc(256, OS_GFP_KERNEL));
    if (ctx->bit_count == nullptr)
        return out_of_memory(function);
    for (unsigned value = 0; value < 256; ++value)
        ctx->bit_count[value] = static_cast<std::uint8_t>(trak_bits_in_byte(value));
    return rc == 0;
}

// Makes `group` the cached one: 0 or the read's negative result.
int cache_group(ext2_reader *ctx, std::uint32_t group, const char *function) {
    const std::uint8_t *desc = ctx->descs + std::uint64_t{group} * kDescSize;
    const std::uint32_t free_stated = trak_le16(desc + kDescFree);
    ctx->cached_group = -1;
    const int rc = trak_bread(ctx->bdev, ctx->bitmap, static_cast<int>(ctx->block_size),
                              trak_le32(desc + kDescBitmap), 1);
    if (rc < 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to read Data Bitmap of Block Group %d: rc=%d",
                 function, group, rc);
        return rc;
    }
    std::uint32_t used = 0;
    for (std::uint32_t i = 0; i < ctx->block_size; ++i)
        used += ctx->bit_count[ctx->bitmap[i]];
    const std::uint32_t free_counted = ctx->block_size * 8 - used;
    const bool unwritten =
        ctx->flags_in_descs && (trak_le16(desc + kDescFlags) & kBitmapUnwritten) != 0;
    if (free_counted != free_stated)
        trak_log(TRAK_LOG_ERROR,
                 "%s(): Number of free blocks (%d) in block group %d is inconsistent with the "
                 "bitmap (%d).",
                 function, free_stated, group, free_counted);
    if (free_counted != free_stated || unwritten)
        memset(ctx->bitmap, 0xFF, ctx->block_size);
    ctx->cached_group = static_cast<std::int32_t>(group);
    return 0;
}

// The boot block and all up to the first data block are in use and in no bitmap.
void mark_leading_blocks(const ext2_reader *ctx, trak_chunk_walk *walk, std::uint32_t first) {
    for (std::uint64_t block = 0; block <= ctx->first_data_block; ++block) {
        const std::uint64_t chunk = block / walk->ratio;
        if (chunk >= first && chunk - first < static_cast<std::uint64_t>(walk->count))
            (void)trak_test_and_set_bit(walk->out, chunk - first);
    }
}

int walk_groups(ext2_reader *ctx, trak_chunk_walk *walk, std::uint64_t group, std::uint64_t bit,
                const char *function) {
    const std::uint64_t bits = std::uint64_t{ctx->block_size} * 8;
    for (; group < ctx->group_cnt; ++group) {
        if (ctx->cached_group < 0 || group != static_cast<std::uint64_t>(ctx->cached_group)) {
            const int rc = cache_group(ctx, static_cast<std::uint32_t>(group), function);
            if (rc < 0)
                return rc;
        }
        const std::uint64_t base = group * ctx->blocks_per_group + ctx->first_data_block;
        if (!trak_walk_bitmap(walk, ctx->bitmap, bits, base, ctx->blocks_count, &bit))
            return 0;
        // A skip may pass whole groups.
        group += bit / bits - 1;
        bit %= bits;
    }
    return 0;
}

}  // namespace

void *ext2_reader_init(os_bdev *bdev, std::int32_t *block_size) {
    auto *super = static_cast<std::uint8_t *>(os_kmalloc(kSuperSize, OS_GFP_KERNEL));
    if (super == nullptr) {
        (void)out_of_memory(__func__);
        return nullptr;
    }
    ext2_reader *ctx = nullptr;
    if (read_super(bdev, super, __func__) == 0) {
        ctx = static_cast<ext2_reader *>(os_kzalloc(sizeof *ctx, OS_GFP_KERNEL));
        if (ctx == nullptr)
            (void)out_of_memory(__func__);
    }
    if (ctx != nullptr) {
        fill(ctx, bdev, super);
        if (block_size != nullptr)
            *block_size = static_cast<std::int32_t>(ctx->block_size);
        bool good = is_usable(ctx, super, __func__);
        if (good) {
            count_groups(ctx);
            good = load(ctx, __func__);
        }
        if (!good) {
            (void)ext2_reader_destroy(ctx);
            ctx = nullptr;
        }
    }
    os_kfree(super);
    return ctx;
}

int ext2_reader_read(void *context, std::uint32_t first, std::uint32_t chunk_size,
                     std::uint8_t *out, std::int32_t count) {
    auto *ctx = static_cast<ext2_reader *>(context);
    if (ctx == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Invalid reader's context NULL.");
        return -EINVAL;
    }
    if (!trak_chunk_size_is_valid(chunk_size)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Chunk size (%d) must be a power of 2.", chunk_size);
        return -EINVAL;
    }
    if (ctx->block_size > chunk_size) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Chunk size (%d) is smaller than FS block size (%d).",
                  chunk_size, ctx->block_size);
        return -EINVAL;
    }
    if (count <= 0)
        return 0;
    memset(out, 0, (static_cast<std::size_t>(count) + 7) / 8);

    const std::uint64_t ratio = chunk_size / ctx->block_size;
    trak_chunk_walk walk{out, 0, count, ratio, ratio};
    mark_leading_blocks(ctx, &walk, first);
    const std::uint64_t start = ratio * first;
    if (start > ctx->first_data_block) {
        const std::uint64_t data = start - ctx->first_data_block;
        return walk_groups(ctx, &walk, data / ctx->blocks_per_group, data % ctx->blocks_per_group,
                           __func__);
    }
    walk.chunk = static_cast<std::int64_t>(ctx->first_data_block / ratio) - first;
    walk.left = ratio - ctx->first_data_block % ratio;
    return walk_groups(ctx, &walk, 0, 0, __func__);
}

int ext2_reader_destroy(void *context) {
    auto *ctx = static_cast<ext2_reader *>(context);
    if (ctx == nullptr)
        return 0;
    os_vfree(ctx->descs);
    os_vfree(ctx->bitmap);
    os_kfree(ctx->bit_count);
    os_kfree(ctx);
    return 0;
}
