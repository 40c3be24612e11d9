// driver/snap/cowbmp.h: which chunks of the disk a snapshot has preserved
// SPDX-License-Identifier: GPL-2.0-only
//
// Owner      one snap's record. Pages are made on the first bit and freed by destroy.
// Locks      lock (rank 45): read to test and set, write to place a page, load and destroy.
// Units      chunk = the snap's chunk_size; page = 4096 bytes = 32768 bits.
// Format     the file is the bit array alone: chunk c is bit (c & 7) of byte c >> 3.
// Context    every call sleeps.
#ifndef TRAK_SNAP_COWBMP_H
#define TRAK_SNAP_COWBMP_H

#include <cstdint>

#include "driver/block/locks.h"
#include "driver/utils/trak_utils.h"
#include "os/memory.h"

struct trak_cowbmp {
    zurwlock lock;
    std::uint64_t chunk_cnt;
    std::int32_t page_cnt;  // ((chunk_cnt - 1) >> 15) + 1
    std::uint8_t **pages;   // null: not initialised; a null page is all zero
};

// 0 or -ENOMEM.
[[nodiscard]] int trak_cowbmp_init(trak_cowbmp *bmp, std::uint64_t chunk_cnt);
// Replaces the bitmap by the file: 0, -EINVAL, -EIO or -ENOMEM; a failure leaves it uninitialised.
[[nodiscard]] int trak_cowbmp_load(trak_cowbmp *bmp, const char *path);
// Writes the whole bitmap to a new file: 0, -EINVAL or -EIO.
[[nodiscard]] int trak_cowbmp_save(trak_cowbmp *bmp, const char *path);
// 1 set, 0 clear, -EINVAL uninitialised.
[[nodiscard]] int trak_cowbmp_test_bit(trak_cowbmp *bmp, std::uint32_t chunk);
// How many of the chunks first to last are set, as that many tests would say, or -EINVAL uninitialised.
[[nodiscard]] std::int64_t trak_cowbmp_count_set(trak_cowbmp *bmp, std::uint64_t first,
                                                 std::uint64_t last);
// Sets the bit and, when it was clear and file is not null, writes the byte that holds it.
// 0, -EINVAL, -ENOMEM or -EIO (the bit is then set in memory only).
[[nodiscard]] int trak_cowbmp_set_bit(trak_cowbmp *bmp, std::int32_t chunk, os_gfp gfp,
                                      trak_file *file);
int trak_cowbmp_destroy(trak_cowbmp *bmp);

#endif
