// driver/fsreaders/xfs_reader.cpp: allocated blocks of an XFS file system: superblocks and AG headers
// SPDX-License-Identifier: GPL-2.0-only
//
// Each allocation group (AG) begins with a copy of the superblock; the sector of 512 bytes after it is
// its header, which names the roots of its free-space trees. The trees are read in xfs_tree.cpp.
#include "driver/fsreaders/xfs_reader.h"

#include "driver/fsreaders/chunk_walk.h"
#include "driver/fsreaders/disk_fields.h"
#include "driver/fsreaders/xfs_log.h"
#include "driver/fsreaders/xfs_tree.h"
#include "driver/module/log.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "driver/utils/trak_utils.h"
#include "os/memory.h"
#include "os/task.h"

namespace {

constexpr std::uint32_t kSuperMagic = 0x58465342;
constexpr std::uint32_t kHeaderMagic = 0x58414746;
constexpr std::uint32_t kFirstSize = 4096;  // of the buffer, before the block size is known
constexpr std::uint32_t kUnit = 512;        // of the reads of superblocks and headers

#define HDD(bdev) os_major(os_bdev_dev(bdev)), os_minor(os_bdev_dev(bdev))

void convert_super(xfs_reader *ctx) {
    const std::uint8_t *raw = ctx->node;
    ctx->sb.sb_magicnum = trak_be32(raw);
    ctx->sb.sb_blocksize = trak_be32(raw + 4);
    ctx->sb.sb_dblocks = trak_be64(raw + 8);
    ctx->sb.sb_agblocks = trak_be32(raw + 84);
    ctx->sb.sb_agcount = trak_be32(raw + 88);
    ctx->sb.sb_sectsize = trak_be16(raw + 102);
    ctx->sb.sb_logstart = trak_be64(raw + 48);
    ctx->sb.sb_logblocks = trak_be32(raw + 96);
    ctx->sb.sb_agblklog = raw[124];
}

bool read_super(xfs_reader *ctx, const char *function) {
    const int rc = trak_bread(ctx->bdev, ctx->node, kUnit, 0, 1);
    if (rc < 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", function,
                 HDD(ctx->bdev), rc);
        return false;
    }
    convert_super(ctx);
    if (rc != 0 || ctx->sb.sb_magicnum != kSuperMagic) {
        trak_log(TRAK_LOG_DETAIL, "%s(): hdd(%d, %d) doesn't have XFS.", function, HDD(ctx->bdev));
        return false;
    }
    return true;
}

bool out_of_memory(const char *function) {
    trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failed.", function);
    return false;
}

void describe(const xfs_reader *ctx, const char *function) {
    trak_log(TRAK_LOG_COMMAND, "%s(): Detected XFS on hdd(%d, %d)", function, HDD(ctx->bdev));
    trak_log(TRAK_LOG_COMMAND, "   magic=0x%08x", ctx->sb.sb_magicnum);
    trak_log(TRAK_LOG_COMMAND, "   blocksize=%d", ctx->sb.sb_blocksize);
    trak_log(TRAK_LOG_COMMAND, "   sectsize=%d", ctx->sb.sb_sectsize);
    trak_log(TRAK_LOG_COMMAND, "   AG size=%d blocks", ctx->sb.sb_agblocks);
    trak_log(TRAK_LOG_COMMAND, "   AG count=%d", ctx->sb.sb_agcount);
}

// Sizes that everything below divides by, shifts by or allocates: every AG begins on the disk, and the
// AGs hold all blocks.
bool has_sane_sizes(const xfs_reader *ctx, const char *function) {
    const xfs_reader_sb &sb = ctx->sb;
    if (trak_is_power_of_two(sb.sb_blocksize) && sb.sb_blocksize >= kUnit &&
        sb.sb_blocksize <= 65536 && sb.sb_agblocks != 0 && sb.sb_agcount != 0) {
        const std::uint64_t blocks = std::uint64_t{sb.sb_agblocks} * sb.sb_agcount;
        const std::uint64_t last = blocks - sb.sb_agblocks;
        if (blocks >= sb.sb_dblocks && last < os_bdev_size(ctx->bdev) / sb.sb_blocksize)
            return true;
    }
    trak_log(TRAK_LOG_ERROR, "%s(): hdd(%d, %d) can't have %u AGs of %u blocks of %u bytes.",
             function, HDD(ctx->bdev), sb.sb_agcount, sb.sb_agblocks, sb.sb_blocksize);
    return false;
}

bool make_buffers(xfs_reader *ctx, const char *function) {
    const std::uint64_t bytes = std::uint64_t{ctx->sb.sb_agcount} * sizeof(std::uint32_t);
    ctx->bno_root = static_cast<std::uint32_t *>(os_vmalloc(bytes));
    ctx->ag_length = static_cast<std::uint32_t *>(os_vmalloc(bytes));
    ctx->ag_free = static_cast<std::uint32_t *>(os_vmalloc(bytes));
    if (ctx->bno_root == nullptr || ctx->ag_length == nullptr || ctx->ag_free == nullptr)
        return out_of_memory(function);
    return true;
}

// One AG's copy of the superblock: 0, or the reason was logged.
int check_ag_super(xfs_reader *ctx, std::uint32_t ag, std::int64_t sector, const char *function) {
    const int rc = trak_bread(ctx->bdev, ctx->node, kUnit, sector, 1);
    if (rc < 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to read Super Block of AG %d of hdd(%d, %d): rc=%d",
                 function, ag, HDD(ctx->bdev), rc);
        return rc;
    }
    const std::uint32_t magic = trak_be32(ctx->node);
    if (magic != ctx->sb.sb_magicnum) {
        trak_log(TRAK_LOG_ERROR,
                 "%s(): AG %d of hdd(%d, %d) has incorrect SB magic number: 0x%08x instead of "
                 "0x%08x.",
                 function, ag, HDD(ctx->bdev), magic, ctx->sb.sb_magicnum);
        return -EINVAL;
    }
    return 0;
}

// One AG's header: 0, or the reason was logged.
int load_ag_header(xfs_reader *ctx, std::uint32_t ag, std::int64_t sector, const char *function) {
    const int rc = trak_bread(ctx->bdev, ctx->node, kUnit, sector, 1);
    if (rc < 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to read AGF of AG %d of hdd(%d, %d): rc=%d",
                 function, ag, HDD(ctx->bdev), rc);
        return rc;
    }
    const std::uint8_t *agf = ctx->node;
    if (trak_be32(agf) != kHeaderMagic) {
        trak_log(TRAK_LOG_ERROR,
                 "%s(): Incorrect AGF magic of AG %d of hdd(%d, %d): 0x%08x instead of 0x%08x",
                 function, ag, HDD(ctx->bdev), trak_be32(agf), kHeaderMagic);
        return -EINVAL;
    }
    trak_log(TRAK_LOG_COMMAND,
             "      AGF[%d]: roots=(%d, %d), levels=(%d, %d), freeblks=%d, length=%d", ag,
             trak_be32(agf + 16), trak_be32(agf + 20), trak_be32(agf + 28), trak_be32(agf + 32),
             trak_be32(agf + 52), trak_be32(agf + 12));
    ctx->bno_root[ag] = trak_be32(agf + 16);
    ctx->ag_length[ag] = trak_be32(agf + 12);
    ctx->ag_free[ag] = trak_be32(agf + 52);
    return 0;
}

// An AG is as long as the superblock has it, the last one shorter.
bool length_is_sane(const xfs_reader *ctx, std::uint32_t ag, const char *function) {
    const std::uint64_t start = std::uint64_t{ag} * ctx->sb.sb_agblocks;
    const std::uint64_t rest = ctx->sb.sb_dblocks > start ? ctx->sb.sb_dblocks - start : 0;
    const std::uint64_t length = rest < ctx->sb.sb_agblocks ? rest : ctx->sb.sb_agblocks;
    if (ctx->ag_length[ag] == length && length != 0)
        return true;
    trak_log(TRAK_LOG_ERROR, "%s(): AG %u of hdd(%d, %d) can't have %u blocks.", function, ag,
             HDD(ctx->bdev), ctx->ag_length[ag]);
    return false;
}

bool load_ags(xfs_reader *ctx, const char *function) {
    for (std::uint32_t ag = 0; ag < ctx->sb.sb_agcount; ++ag) {
        const std::uint64_t start =
            std::uint64_t{ag} * ctx->sb.sb_agblocks * ctx->sb.sb_blocksize / kUnit;
        const auto sector = static_cast<std::int64_t>(start);
        if (check_ag_super(ctx, ag, sector, function) != 0 ||
            load_ag_header(ctx, ag, sector + 1, function) != 0 ||
            !length_is_sane(ctx, ag, function))
            return false;
        os_cond_resched();
    }
    return true;
}

// The trees are believed only where the log holds nothing that they lack.
bool log_is_done(xfs_reader *ctx, const char *function) {
    if (xfs_log_is_quiet(ctx))
        return true;
    trak_log(TRAK_LOG_ERROR, "%s(): The log of hdd(%d, %d) must be replayed first.", function,
             HDD(ctx->bdev));
    return false;
}

bool load(xfs_reader *ctx, std::int32_t *block_size, const char *function) {
    if (!read_super(ctx, function))
        return false;
    if (block_size != nullptr)
        *block_size = static_cast<std::int32_t>(ctx->sb.sb_blocksize);
    if (!has_sane_sizes(ctx, function))
        return false;
    if (ctx->sb.sb_blocksize != kFirstSize) {
        os_kfree(ctx->node);
        ctx->node = static_cast<std::uint8_t *>(os_kmalloc(ctx->sb.sb_blocksize, OS_GFP_KERNEL));
        if (ctx->node == nullptr)
            return out_of_memory(function);
    }
    describe(ctx, function);
    return make_buffers(ctx, function) && load_ags(ctx, function) && log_is_done(ctx, function);
}

}  // namespace

void *xfs_reader_init(os_bdev *bdev, std::int32_t *block_size) {
    auto *ctx = static_cast<xfs_reader *>(os_kzalloc(sizeof(xfs_reader), OS_GFP_KERNEL));
    if (ctx == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed");
        return nullptr;
    }
    ctx->bdev = bdev;
    ctx->trusted_ag = -1;
    ctx->node = static_cast<std::uint8_t *>(os_kmalloc(kFirstSize, OS_GFP_KERNEL));
    if (ctx->node == nullptr)
        (void)out_of_memory(__func__);
    else if (load(ctx, block_size, __func__))
        return ctx;
    (void)xfs_reader_destroy(ctx);
    return nullptr;
}

int xfs_reader_read(void *context, std::uint32_t first, std::uint32_t chunk_size, std::uint8_t *out,
                    std::int32_t count) {
    auto *ctx = static_cast<xfs_reader *>(context);
    if (ctx == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Invalid reader's context NULL.");
        return -EINVAL;
    }
    if (!trak_chunk_size_is_valid(chunk_size)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Chunk size (%d) must be a power of 2.", chunk_size);
        return -EINVAL;
    }
    if (chunk_size < ctx->sb.sb_blocksize) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Chunk size (%d) is smaller than FS block size (%d).",
                  chunk_size, ctx->sb.sb_blocksize);
        return -EINVAL;
    }
    if (count <= 0)
        return 0;
    memset(out, 0, (static_cast<std::size_t>(count) + 7) / 8);
    return xfs_mark_chunks(ctx, first, chunk_size / ctx->sb.sb_blocksize, out, count, __func__);
}

int xfs_reader_destroy(void *context) {
    auto *ctx = static_cast<xfs_reader *>(context);
    if (ctx == nullptr)
        return 0;
    os_kfree(ctx->node);
    os_vfree(ctx->bno_root);
    os_vfree(ctx->ag_length);
    os_vfree(ctx->ag_free);
    os_kfree(ctx);
    return 0;
}
