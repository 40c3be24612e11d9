// driver/fsreaders/reiserfs_reader.h: allocated blocks of a ReiserFS (format 3.6) file system
// SPDX-License-Identifier: GPL-2.0-only
//
// Source     the published on-disk format; little-endian.
// Owner      whoever called init, until destroy. One task at a time.
// Context    every call sleeps.
#ifndef TRAK_FSREADERS_REISERFS_READER_H
#define TRAK_FSREADERS_REISERFS_READER_H

#include <cstdint>

#include "os/bdev.h"

struct reiserfs_reader {
    std::uint8_t sb[80];  // head of the superblock; the magic in it is terminated
    os_bdev *bdev;
    std::uint8_t *bitmap;        // one file-system block
    std::int32_t cached_bitmap;  // number of the bitmap block in it; -1: none
    std::int32_t bits_per_bitmap;
    std::int32_t first_bitmap_block;
};

// A context, or null when the disk holds another file system, cannot be read, disagrees with itself
// or has a journal to replay; the block size in bytes goes to *block_size (may be null).
[[nodiscard]] void *reiserfs_reader_init(os_bdev *bdev, std::int32_t *block_size);
// Clears the output, then sets bit k for every chunk first + k below count that holds an allocated
// block. 0 or a negative errno.
[[nodiscard]] int reiserfs_reader_read(void *context, std::uint32_t first, std::uint32_t chunk_size,
                                       std::uint8_t *out, std::int32_t count);
int reiserfs_reader_destroy(void *context);

#endif
