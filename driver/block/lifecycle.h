// driver/block/lifecycle.h: start, stop and destroy of nodes, and the operations of their disks
// SPDX-License-Identifier: GPL-2.0-only
//
// Locks      a filter's dev_mutex comes before those of its snaps: whoever starts or stops a snap holds
//            both, so that the order of a filter's snaps stands still meanwhile.
#ifndef TRAK_BLOCK_LIFECYCLE_H
#define TRAK_BLOCK_LIFECYCLE_H

#include "abi/trak_ioctl.h"
#include "driver/block/device.h"
#include "driver/block/table.h"

// Majors, table and kdirtyd: 0 or a negative errno, with nothing left behind. trak_table_init came first.
int trak_block_init();
// Stops and destroys every node, then the rest: 0 or the first error, leaving the rest in place for
// another call.
int trak_block_destroy();

int trak_ioctl_start_node(trak_minor_arg *arg);
int trak_ioctl_stop_node(trak_minor_arg *arg);
int trak_ioctl_del_node(trak_minor_arg *arg);  // 22, positive, for a minor without a node

// The node table is held at least for reading. 0 or a negative errno.
int trak_block_start_device(trak_device *dev) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// Stops a filter's snaps with it; a snap that older started ones need goes on (0).
int trak_block_stop_device(trak_device *dev) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// The node table is held for writing. Destroys a filter's snaps with it; a snap whose stop is pending is
// only marked (0). unlink_files: 1 removes a snap's COW files too. The record is gone after 0.
int trak_block_destroy_device(trak_device *dev, int unlink_files) TRAK_REQUIRES(trak_blkdev_rwlock);

// Takes away what the world sees of a node: its entry in the status tree and its disk. Nothing where that
// was done before. The node is not open.
void trak_block_hide_device(trak_device *dev) TRAK_REQUIRES(trak_blkdev_rwlock);

extern const os_block_device_operations trak_bdops;
void trak_unplug_filter(os_queue *queue);
void trak_unplug_snap(os_queue *queue);

#endif
