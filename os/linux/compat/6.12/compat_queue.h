// os/linux/compat/6.12/compat_queue.h: the limits of a queue, in kernel 6.12
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_QUEUE_H
#define TRAK_COMPAT_QUEUE_H

#include <linux/blkdev.h>
#include <linux/printk.h>

#include "os/linux/limits.h"

/* What the other disk takes, this one takes; requests are counted. Not so zones, polling, and submission
 * without waiting. */
static inline void compat_copy_limits(struct gendisk *to, struct gendisk *from) {
    struct queue_limits limits = queue_limits_start_update(to->queue);
    int rc;

    blk_set_stacking_limits(&limits);
    queue_limits_stack_bdev(&limits, from->part0, 0, to->disk_name);
    limit_dataless(&limits);
    limits.features &= ~(BLK_FEAT_ZONED | BLK_FEAT_POLL | BLK_FEAT_NOWAIT);
    limits.features |= BLK_FEAT_IO_STAT;
    limits.zone_write_granularity = 0;
    limits.max_zone_append_sectors = 0;
    limits.max_open_zones = 0;
    limits.max_active_zones = 0;
    rc = queue_limits_commit_update(to->queue, &limits);
    if (rc != 0)
        pr_warn("trak: %s doesn't take the limits of %s: %d\n", to->disk_name, from->disk_name, rc);
}

#endif
