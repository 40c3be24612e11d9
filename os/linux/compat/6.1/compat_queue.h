// os/linux/compat/6.1/compat_queue.h: the limits of a queue, in kernel 6.1
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_QUEUE_H
#define TRAK_COMPAT_QUEUE_H

#include <linux/blkdev.h>

#include "os/linux/limits.h"

static inline void compat_copy_flag(unsigned int flag, struct request_queue *to,
                                    const struct request_queue *from) {
    if (test_bit(flag, &from->queue_flags))
        blk_queue_flag_set(flag, to);
    else
        blk_queue_flag_clear(flag, to);
}

/* What the other disk takes, this one takes; requests are counted. Not so zones, polling, and submission
 * without waiting: for a queue of ours those were never switched on. */
static inline void compat_copy_limits(struct gendisk *to, struct gendisk *from) {
    struct queue_limits *limits = &to->queue->limits;
    const struct request_queue *below = from->queue;

    blk_set_stacking_limits(limits);
    blk_stack_limits(limits, (struct queue_limits *)&below->limits, 0);
    limit_dataless(limits);
    limits->zoned = BLK_ZONED_NONE;
    limits->max_zone_append_sectors = 0;
    compat_copy_flag(QUEUE_FLAG_NONROT, to->queue, below);
    compat_copy_flag(QUEUE_FLAG_STABLE_WRITES, to->queue, below);
    blk_queue_write_cache(to->queue, test_bit(QUEUE_FLAG_WC, &below->queue_flags),
                          test_bit(QUEUE_FLAG_FUA, &below->queue_flags));
    blk_queue_flag_set(QUEUE_FLAG_IO_STAT, to->queue);
    disk_update_readahead(to);
}

#endif
