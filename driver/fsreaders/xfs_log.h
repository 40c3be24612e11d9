// driver/fsreaders/xfs_log.h: whether the log of XFS holds what its trees don't show yet
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_FSREADERS_XFS_LOG_H
#define TRAK_FSREADERS_XFS_LOG_H

#include "driver/fsreaders/xfs_reader.h"

// True when replaying the log would change no free-space tree: there is no log, it was never written, it
// ends with an unmount, or nothing but superblocks and inodes waits in it, as on a file system that
// is frozen. False also for a log that can't be followed. Needs ctx->sb; uses ctx->node. Sleeps.
[[nodiscard]] bool xfs_log_is_quiet(xfs_reader *ctx);

#endif
