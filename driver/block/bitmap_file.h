// driver/block/bitmap_file.h: change bitmaps in their files
// SPDX-License-Identifier: GPL-2.0-only
//
// Every function sleeps, and takes the filter's bmp_mutex (rank 30) itself; the mutex nests.
// type: 1 incremental, any other differential.
#ifndef TRAK_BLOCK_BITMAP_FILE_H
#define TRAK_BLOCK_BITMAP_FILE_H

#include <cstdint>

#include "driver/block/device.h"

// Writes the bitmap to its file: 0, -ENOMEM (nothing done), -EINVAL (the file lies on the node itself),
// -EIO or the write's errno; the bitmap is then dirty.
int trak_block_save_bmp(trak_filter *filter, std::uint32_t type);
// Replaces the bitmap by its file. Any failure but a missing work buffer (-ENOMEM) sets the whole bitmap
// and its dirty flag; 0 where the file is dirty, of another size or damaged.
int trak_block_load_bmp(trak_filter *filter, std::uint32_t type);
// Both bitmaps, incremental first; the first error of the two. The save leaves clean bitmaps alone.
int trak_block_save_dirty_bmps(trak_filter *filter);
int trak_block_load_bmps(trak_filter *filter);
// Writes the header's first 8 bytes; flag != 0 cuts the file to them.
int trak_block_write_dirty_flag(trak_filter *filter, std::uint32_t type, int flag);
// The bitmap's dirty flag in memory.
[[nodiscard]] bool trak_block_bmp_is_dirty(trak_filter *filter, std::uint32_t type);

// Updates a register of CRC-32 (reflected 0xEDB88320) in place, without final complement.
void trak_crc32(const void *data, int length, std::uint32_t *crc);

// "Incremental", "Differential" or "Unknown".
const char *trak_bmp_type_name(std::uint32_t type);

#endif
