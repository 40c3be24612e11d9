// driver/fsreaders/xfs_reader.h: allocated blocks of an XFS (version 4) file system
// SPDX-License-Identifier: GPL-2.0-only
//
// Source     the published on-disk format; big-endian.
// Units      AG-relative blocks are 32-bit, absolute ones 64-bit, both of sb_blocksize bytes.
// Owner      whoever called init, until destroy. One task at a time.
// Context    every call sleeps.
#ifndef TRAK_FSREADERS_XFS_READER_H
#define TRAK_FSREADERS_XFS_READER_H

#include <cstdint>

#include "os/bdev.h"

// The fields of the superblock that are used, in host order.
struct xfs_reader_sb {
    std::uint32_t sb_magicnum;
    std::uint32_t sb_blocksize;  // bytes
    std::uint64_t sb_dblocks;
    std::uint32_t sb_agblocks;
    std::uint32_t sb_agcount;
    std::uint16_t sb_sectsize;  // bytes
    std::uint64_t sb_logstart;  // AG number << sb_agblklog | AG-relative block
    std::uint32_t sb_logblocks;
    std::uint8_t sb_agblklog;
};

struct xfs_reader {
    xfs_reader_sb sb;
    os_bdev *bdev;
    std::uint8_t *node;        // one file-system block: what was read last
    std::uint32_t *bno_root;   // per AG: root of the free-space tree by block number
    std::uint32_t *ag_length;  // per AG: blocks
    std::uint32_t *ag_free;    // per AG: free blocks as its header counts them
    std::int64_t trusted_ag;   // whose tree was found whole last; -1: none
    std::uint32_t last_leaf;   // of it, where the last query ended; ~0: the first one
    std::uint64_t last_block;  // AG-relative, that the last query ended at
};

// A context, or null when the disk holds another file system or cannot be read; the block size in
// bytes goes to *block_size (may be null).
[[nodiscard]] void *xfs_reader_init(os_bdev *bdev, std::int32_t *block_size);
// Clears the output, then sets bit k for every chunk first + k below count that no single free extent
// covers. 0 or a negative errno.
[[nodiscard]] int xfs_reader_read(void *context, std::uint32_t first, std::uint32_t chunk_size,
                                  std::uint8_t *out, std::int32_t count);
// Descends from AG-relative block `block` to the leaf that may hold `target`; the leaf is then in
// `node`. ag_start is the AG's first absolute block. 0 or a negative errno.
[[nodiscard]] int xfs_find_leaf(xfs_reader *ctx, std::uint32_t target, std::uint64_t ag_start,
                                std::uint32_t block);
int xfs_reader_destroy(void *context);

#endif
