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
// The first half of a destroy, with the node table held for writing. Destroys a filter's snaps with it; a
// snap whose stop is pending is only marked (0). What left the table is added to the list, which goes to
// trak_block_bury_devices in any case, after an error too.
int trak_block_destroy_device(trak_device *dev, trak_list *leaving)
    TRAK_REQUIRES(trak_nodes_mutex, trak_blkdev_rwlock);
// The second half: disks, files and records of the nodes on the list, which is empty afterwards.
// unlink_files: 1 removes the COW files of snaps too.
void trak_block_bury_devices(trak_list *leaving, int unlink_files) TRAK_REQUIRES(trak_nodes_mutex)
    TRAK_EXCLUDES(trak_blkdev_rwlock);
// Takes a node's disk away, unless it is null. Nobody can reach the node through it any more.
void trak_block_remove_disk(os_disk *disk) TRAK_REQUIRES(trak_nodes_mutex)
    TRAK_EXCLUDES(trak_blkdev_rwlock);

extern const os_block_device_operations trak_bdops;
void trak_unplug_filter(os_queue *queue);
void trak_unplug_snap(os_queue *queue);

#endif
