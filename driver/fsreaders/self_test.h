// driver/fsreaders/self_test.h: the readers and the data-block bitmap, tried on a disk
// SPDX-License-Identifier: GPL-2.0-only
//
// Reads the disk only; writes dump files "/tmp/bmp.CHUNK.PORTION". Results are in the log. Sleeps.
#ifndef TRAK_FSREADERS_SELF_TEST_H
#define TRAK_FSREADERS_SELF_TEST_H

#include <cstdint>

#include "driver/fsreaders/readers.h"
#include "os/bdev.h"

// 0 when the file system was recognised and every bitmap agreed with every other; else a negative
// errno.
[[nodiscard]] int trak_blkbmp_test(os_bdev *bdev);
// The reader alone: every chunk size up to 64 KiB, in portions of many sizes.
[[nodiscard]] int trak_blkbmp_test_reader(os_bdev *bdev, void *context, std::int32_t block_size,
                                          const trak_fs_reader *reader);

#endif
