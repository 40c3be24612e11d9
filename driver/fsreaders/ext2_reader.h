// driver/fsreaders/ext2_reader.h: allocated blocks of an ext2 or ext3 file system
// SPDX-License-Identifier: GPL-2.0-only
//
// Source     the published on-disk format; little-endian. Groups are exactly block_size * 8 blocks.
// Owner      whoever called init, until destroy. One task at a time.
// Context    every call sleeps.
#ifndef TRAK_FSREADERS_EXT2_READER_H
#define TRAK_FSREADERS_EXT2_READER_H

#include <cstdint>

#include "os/bdev.h"

struct ext2_reader {
    os_bdev *bdev;
    std::uint32_t block_size;  // bytes
    std::uint32_t blocks_count;
    std::uint32_t first_data_block;
    std::uint32_t blocks_per_group;
    std::uint32_t inodes_per_group;
    std::uint32_t group_cnt;
    std::uint32_t descs_per_block;
    std::uint32_t desc_blocks;
    std::uint8_t *descs;        // desc_blocks blocks of 32-byte group descriptors
    std::uint8_t *bitmap;       // block bitmap of cached_group
    std::int32_t cached_group;  // -1: none
    std::uint8_t *bit_count;    // one bits of each byte value
    bool flags_in_descs;        // descriptors say which bitmaps were never written
};

// A context, or null when the disk holds another file system or cannot be read; the block size in
// bytes goes to *block_size (may be null).
[[nodiscard]] void *ext2_reader_init(os_bdev *bdev, std::int32_t *block_size);
// Clears the output, then sets bit k for every chunk first + k below count that holds an allocated
// block. 0 or a negative errno.
[[nodiscard]] int ext2_reader_read(void *context, std::uint32_t first, std::uint32_t chunk_size,
                                   std::uint8_t *out, std::int32_t count);
int ext2_reader_destroy(void *context);

#endif
