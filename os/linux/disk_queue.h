// os/linux/disk_queue.h: queues of kernels whose disks are made with one each
// SPDX-License-Identifier: GPL-2.0-only
//
// A queue is an object of its own only in the driver's eyes. os_queue is therefore this glue's record for
// a disk of ours, and a marked pointer to the disk for any other, of which nothing but its limits is asked.
#ifndef TRAK_OS_LINUX_DISK_QUEUE_H
#define TRAK_OS_LINUX_DISK_QUEUE_H

#include <linux/blkdev.h>

#include "os/disk.h"

struct os_queue {
    os_make_request_fn make_request;
    os_unplug_fn unplug;
    void *data;
    struct gendisk *disk; /* null until os_disk_set_queue */
};

/* A queue that is not ours, by its disk. */
static inline struct os_queue *foreign_queue(struct gendisk *disk) {
    return (struct os_queue *)((unsigned long)disk | 1);
}

static inline bool queue_is_foreign(const struct os_queue *queue) {
    return ((unsigned long)queue & 1) != 0;
}

static inline struct gendisk *disk_of_queue(const struct os_queue *queue) {
    if (queue_is_foreign(queue))
        return (struct gendisk *)((unsigned long)queue & ~1ul);
    return queue->disk;
}

#endif
