// driver/snap/snap_node.h: creation, start, stop and resume of snap nodes
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_SNAP_SNAP_NODE_H
#define TRAK_SNAP_SNAP_NODE_H

#include "abi/trak_ioctl.h"
#include "driver/block/device.h"
#include "driver/block/table.h"

int trak_ioctl_add_snap_node(trak_add_snap_arg *arg);
int trak_ioctl_resume_snap(trak_resume_arg *arg);

// The snap branches of trak_block_start_device and trak_block_stop_device. The caller holds the node
// table for reading, the parent filter's dev_mutex and then the snap's. 0 or a negative errno; both
// write `started` themselves, and leave it as it has to stay when they fail.
[[nodiscard]] int trak_snap_start(trak_device *snap) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// Once a start succeeded and every lock but the table is released: reads which chunks hold data.
void trak_snap_read_data_blocks(trak_device *snap) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// Stops this snap alone. *postponed is set to 1 when older started snaps keep it running (else 0).
[[nodiscard]] int trak_snap_stop(trak_device *snap, int *postponed)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// After a stop that was not postponed, once the snap's dev_mutex is released (the filter's still
// held): the next newer started snap when its stop was postponed, which the caller stops now, in a
// loop, through the whole stop procedure; else null.
[[nodiscard]] trak_device *trak_snap_next_to_stop(trak_device *snap)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// Destroy's part: unlinks the snap from its filter.
void trak_snap_detach(trak_device *snap) TRAK_REQUIRES(trak_blkdev_rwlock);
// True while the snap takes part in COW decisions: started and valid.
[[nodiscard]] bool trak_snap_takes_part(const trak_device *snap);

#endif
