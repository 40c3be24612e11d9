// os/linux/compat/2.6.32/compat_block.h: what a queue is in kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
//
// Queues are objects of their own: os_queue is the kernel's struct request_queue, of any disk. What the
// driver keeps of a queue of ours is a record at its queuedata (queue.c).
#ifndef TRAK_COMPAT_BLOCK_H
#define TRAK_COMPAT_BLOCK_H

#include <linux/blkdev.h>

#include "os/disk.h"

static inline struct request_queue *real_queue(const struct os_queue *queue) {
    return (struct request_queue *)queue;
}

/* A queue that is not ours, by its disk. */
static inline struct os_queue *foreign_queue(struct gendisk *disk) {
    return (struct os_queue *)disk->queue;
}

/* A disk of ours holds its queue: who has found it and is about to open it asks that for its record, at a
 * time when the driver may have let both go. (queue.c) */
void trak_queue_hold(struct request_queue *queue);
void trak_queue_release(struct request_queue *queue);

/* Whether a bio came from os_bio_alloc or os_bio_clone. */
bool trak_bio_is_own(const struct bio *bio);

#endif
