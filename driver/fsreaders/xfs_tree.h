// driver/fsreaders/xfs_tree.h: the free-space trees of XFS
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_FSREADERS_XFS_TREE_H
#define TRAK_FSREADERS_XFS_TREE_H

#include <cstdint>

#include "driver/fsreaders/xfs_reader.h"

// Sets the bits of the chunks [first, first + count), each of `ratio` blocks, that no single free
// extent covers; the output was cleared. Logs under the calling function's name. 0 or a negative errno.
[[nodiscard]] int xfs_mark_chunks(xfs_reader *ctx, std::uint32_t first, std::uint64_t ratio,
                                  std::uint8_t *out, std::int32_t count, const char *function);

#endif
