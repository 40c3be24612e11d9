// os/linux/compat/6.12/compat_stat.h: counting requests, in kernel 6.12
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_STAT_H
#define TRAK_COMPAT_STAT_H

#include <linux/blkdev.h>
#include <linux/jiffies.h>

/* When the request began, for its end. */
static inline unsigned long compat_stat_start(struct block_device *bdev, enum req_op op,
                                              unsigned int sectors) {
    return bdev_start_io_acct(bdev, op, jiffies);
}

static inline void compat_stat_end(struct block_device *bdev, enum req_op op, unsigned int sectors,
                                   unsigned long start) {
    bdev_end_io_acct(bdev, op, sectors, start);
}

#endif
