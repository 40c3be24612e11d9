// driver/fsreaders/self_test_steps.h: what the two halves of the self-test share
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_FSREADERS_SELF_TEST_STEPS_H
#define TRAK_FSREADERS_SELF_TEST_STEPS_H

#include <cstdint>

#include "driver/fsreaders/readers.h"
#include "os/bdev.h"

// A disk under test.
struct trak_self_test {
    os_bdev *bdev;
    void *context;
    const trak_fs_reader *reader;
    std::uint32_t block_size;  // bytes, a power of two
    std::uint32_t blocks;      // that cover the disk
    std::uint32_t bytes;       // of a bitmap of them
};

// 0; -EINVAL for a size that can't be told, -EFBIG for one whose blocks no 31 bits can count. Logs under
// the calling function's name.
[[nodiscard]] int trak_self_test_init(trak_self_test *test, os_bdev *bdev, void *context,
                                      std::int32_t block_size, const trak_fs_reader *reader,
                                      const char *function);
// Chunks of a size that cover the disk.
[[nodiscard]] std::uint32_t trak_self_test_chunks(const trak_self_test *test,
                                                  std::uint32_t chunk_size);
// True when one of the blocks [first, first + count) that exist is set in the bitmap of blocks.
[[nodiscard]] bool trak_self_test_any_block(const trak_self_test *test, const std::uint8_t *blocks,
                                            std::uint64_t first, std::uint32_t count);

#endif
