// driver/fsreaders/readers.h: what a reader of a file system offers
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_FSREADERS_READERS_H
#define TRAK_FSREADERS_READERS_H

#include <cstdint>

#include "os/bdev.h"

// init     a context, or null when the device does not hold the file system or cannot be read; the
//          block size in bytes is stored where block_size is not null.
// read     clears the first (count + 7) / 8 bytes of out, then sets bit k for every chunk first + k
//          with at least one block in use; >= 0, or -EINVAL for a chunk size that is no power of
//          two or below the block size, or another negative errno.
// destroy  frees the context: 0.
struct trak_fs_reader {
    void *(*init)(os_bdev *bdev, std::int32_t *block_size);
    int (*read)(void *context, std::uint32_t first, std::uint32_t chunk_size, std::uint8_t *out,
                std::int32_t count);
    int (*destroy)(void *context);
};

// In the order in which they are probed; trak_fs_reader_count entries.
extern const trak_fs_reader *const trak_fs_readers;
extern const int trak_fs_reader_count;

#endif
