// driver/fsreaders/blkbmp.h: which chunks of a disk hold allocated blocks
// SPDX-License-Identifier: GPL-2.0-only
//
// Built once when a snap starts or resumes, then read by any number of tasks; `valid` is set last.
// While it is 0 every chunk counts as holding data.
#ifndef TRAK_FSREADERS_BLKBMP_H
#define TRAK_FSREADERS_BLKBMP_H

#include <cstdint>

#include "os/bdev.h"

// A sparse array over the bits of 2^20 consecutive chunks: equal blocks share one copy.
struct sa {
    std::uint32_t blk_cnt;
    std::uint32_t bit_shift;
    std::uint32_t blk_size;
    std::uint32_t bit_mask;
    std::uint32_t byte_shift;
    std::uint16_t *index;  // blk_cnt entries
    std::uint8_t *data;    // the distinct blocks
};

struct trak_blkbmp {
    std::int32_t valid;
    std::uint32_t chunk_cnt;
    std::int32_t frag_cnt;
    sa *frags;
};

int trak_blkbmp_init(trak_blkbmp *bmp);
// >= 0 when built, or a negative errno with `valid` 0. Sleeps.
[[nodiscard]] int trak_blkbmp_read(trak_blkbmp *bmp, os_bdev *bdev, std::uint32_t chunk_size);
// One bit per `ratio` chunks into buffer of `size` bytes: 0 or -EINVAL.
[[nodiscard]] int trak_blkbmp_export(const trak_blkbmp *bmp, std::uint32_t ratio, void *buffer,
                                     std::uint32_t size);
int trak_blkbmp_destroy(trak_blkbmp *bmp);
// True when the chunk holds data, the bitmap is not built, or does not reach the chunk.
[[nodiscard]] bool trak_blkbmp_holds_data(const trak_blkbmp *bmp, std::uint32_t chunk);
// Size in bytes of the fragment, or -ENOMEM; dry_run != 0 measures only.
[[nodiscard]] int create_sa(sa *frag, int blk_cnt, int blk_size, const std::uint8_t *bits,
                            int dry_run);

#endif
