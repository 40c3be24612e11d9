// driver/block/bitmap_file.h: change bitmaps in their files
// SPDX-License-Identifier: GPL-2.0-only
//
// Every function sleeps, and takes the filter's bmp_mutex (rank 30) itself; the mutex nests.
#ifndef TRAK_BLOCK_BITMAP_FILE_H
#define TRAK_BLOCK_BITMAP_FILE_H

#include <cstdint>

#include "driver/block/device.h"

// type: 1 incremental, any other differential. 0 or a negative errno.
int trak_block_save_bmp(trak_filter *filter, std::uint32_t type);
// Any failure but a missing work buffer sets the whole bitmap and its dirty flag.
int trak_block_load_bmp(trak_filter *filter, std::uint32_t type);
int trak_block_save_dirty_bmps(trak_filter *filter);
int trak_block_load_bmps(trak_filter *filter);
int trak_block_write_dirty_flag(trak_filter *filter, std::uint32_t type, int flag);

// Updates a register of CRC-32 (reflected 0xEDB88320) in place, without final complement.
void trak_crc32(const void *data, int length, std::uint32_t *crc);

// "Incremental", "Differential" or "Unknown".
const char *trak_bmp_type_name(std::uint32_t type);

#endif
