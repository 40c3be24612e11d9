// driver/control/info.h: the information commands
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_CONTROL_INFO_H
#define TRAK_CONTROL_INFO_H

#include "abi/trak_ioctl.h"
#include "driver/block/device.h"
#include "driver/block/table.h"

// The minors of all nodes of arg->dev_type, ascending, at most TRAK_LIST_MAX. The highest minor,
// trak_max_blk_minor, is never listed. 0 or -EINVAL (unknown type). Takes the node table's lock.
int trak_ioctl_get_device_list(trak_device_list_arg *arg) TRAK_EXCLUDES(trak_blkdev_rwlock);
// Describes a node; fields of the other node type stay as they came. 0 or -EINVAL (a snap without a
// filter). No lock of the node is taken: counters and bitmap flags may be changing meanwhile.
int trak_ioctl_get_info(trak_device *dev, trak_info_arg *arg)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);

#endif
