// os/linux/limits.h: limits of our queues that don't come from the disk below
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_LIMITS_H
#define TRAK_OS_LINUX_LIMITS_H

#include <linux/blkdev.h>
#include <linux/minmax.h>

/* A request without data may span the disk, and under a snapshot the driver keeps a record for each of
 * its blocks: no more than its pool keeps back. */
enum { max_dataless_sectors = 4096 * 8 };

static inline void limit_dataless(struct queue_limits *limits) {
    const unsigned int most =
        max_t(unsigned int, max_dataless_sectors, limits->discard_granularity >> SECTOR_SHIFT);

    limits->max_discard_sectors = min(limits->max_discard_sectors, most);
    limits->max_hw_discard_sectors = min(limits->max_hw_discard_sectors, most);
    limits->max_secure_erase_sectors = min(limits->max_secure_erase_sectors, most);
    limits->max_write_zeroes_sectors =
        min_t(unsigned int, limits->max_write_zeroes_sectors, max_dataless_sectors);
}

#endif
