// driver/block/filter.h: creation of a filter node, and what snap nodes share with it
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_BLOCK_FILTER_H
#define TRAK_BLOCK_FILTER_H

#include "abi/trak_ioctl.h"
#include "driver/block/device.h"
#include "driver/block/table.h"

// 0 with the chosen minor, name and identifier in the record, or a negative errno. A refusal for a minor
// that is taken empties that minor's table entry (see orphans.h).
int trak_ioctl_add_filter_node(trak_add_filter_arg *arg);

// Makes and publishes the node's disk and queue: capacity in sectors, queue limits of hdd, requests to
// trak_make_request; logs under the creating function's name. 0 or -ENOMEM (nothing left behind).
[[nodiscard]] int trak_block_add_disk(const char *function, trak_device *dev, std::uint64_t sectors,
                                      os_bdev *hdd, os_unplug_fn unplug)
    TRAK_REQUIRES(trak_blkdev_rwlock);
// Makes "/dev/trak/NAME"; dev_name stays empty on failure.
void trak_block_make_special_file(trak_device *dev);

#endif
