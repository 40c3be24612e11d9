// os/linux/block.h: what the block files of the glue share
// SPDX-License-Identifier: GPL-2.0-only
//
// Handles    os_bio is the kernel's struct bio, os_bdev its struct block_device, os_disk its struct
//            gendisk. A queue is an object of its own only in the driver's eyes: each disk has one, made
//            with it. os_queue is therefore this glue's record for a disk of ours, and a marked pointer
//            to the disk for any other, of which nothing but its limits is asked.
#ifndef TRAK_OS_LINUX_BLOCK_H
#define TRAK_OS_LINUX_BLOCK_H

#include <linux/blkdev.h>

#include "os/disk.h"

struct os_queue {
    os_make_request_fn make_request;
    os_unplug_fn unplug;
    void *data;
    struct gendisk *disk; /* null until os_disk_set_queue */
};

static inline struct bio *real_bio(const struct os_bio *bio) {
    return (struct bio *)bio;
}

static inline struct block_device *real_bdev(const struct os_bdev *bdev) {
    return (struct block_device *)bdev;
}

static inline struct gendisk *real_disk(const struct os_disk *disk) {
    return (struct gendisk *)disk;
}

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

/* The pools that bios come from (bio.c), and the disks that the kernel still refers to (disk.c): 0 or a
 * negative errno at load; the exits wait until nothing of theirs is in use. Context: sleep. */
int trak_bio_init(void);
void trak_bio_exit(void);
void trak_disk_exit(void);
/* A request has come to a node; its end is counted too (stat.c). Context: any. */
void trak_stat_start(struct bio *bio);

#endif
