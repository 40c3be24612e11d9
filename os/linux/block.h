// os/linux/block.h: what the block files of the glue share
// SPDX-License-Identifier: GPL-2.0-only
//
// Handles    os_bio is the kernel's struct bio, os_bdev its struct block_device, os_disk its struct
//            gendisk. What an os_queue is differs between kernels (compat_block.h).
#ifndef TRAK_OS_LINUX_BLOCK_H
#define TRAK_OS_LINUX_BLOCK_H

#include <linux/blkdev.h>

#include <compat_block.h>

#include "os/disk.h"
#include "os/linux/under_way.h"

static inline struct bio *real_bio(const struct os_bio *bio) {
    return (struct bio *)bio;
}

static inline struct block_device *real_bdev(const struct os_bdev *bdev) {
    return (struct block_device *)bdev;
}

static inline struct gendisk *real_disk(const struct os_disk *disk) {
    return (struct gendisk *)disk;
}

/* The pools that bios come from (bio.c), those of the records of requests (stat.c), and the disks that the
 * kernel still refers to (disk.c): 0 or a negative errno at load; the exits wait until nothing of theirs is
 * in use. Context: sleep. */
int trak_bio_init(void);
void trak_bio_exit(void);
int trak_stat_init(void);
void trak_stat_exit(void);
void trak_disk_exit(void);
/* A request has come to a node; its end is counted too (stat.c). Waits for memory rather than lose count.
 * Context: sleep. */
void trak_stat_start(struct bio *bio, struct trak_under_way *under_way);
/* Drops an active reference (s_active); the file system is not shut down in the caller. Context: sleep. */
void trak_let_super_go(struct super_block *super);

#endif
