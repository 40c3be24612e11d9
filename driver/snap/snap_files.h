// driver/snap/snap_files.h: what starts, stops and resumes of snaps share
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_SNAP_SNAP_FILES_H
#define TRAK_SNAP_SNAP_FILES_H

#include "driver/block/device.h"
#include "driver/block/table.h"

// Starts the filter of a snap and its COW thread where they are not running, and waits until the
// thread can serve: 0 or a negative errno. The filter's dev_mutex is held.
[[nodiscard]] int snap_wake_filter(trak_device *filter) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// Closes the COW files and frees the bitmaps of a snap that is not started. Its dev_mutex is held, and
// nobody works with them any more.
void snap_drop_files(trak_device *snap);

#endif
