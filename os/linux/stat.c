// os/linux/stat.c: what /proc/diskstats and /sys/block/NODE/stat count of a node
// SPDX-License-Identifier: GPL-2.0-only
//
// A request counts from its entry until its end, so its end function and private data wait in a record
// meanwhile; what the driver itself puts there (bio.c) comes and goes on top. Counting never waits and
// never fails a request: without memory for a record it counts as one that took no time. Nothing is done
// where /sys/block/NODE/queue/iostats is 0.
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/slab.h>

#include "os/linux/block.h"

#include <compat_stat.h>

struct counted {
    bio_end_io_t *end_io; /* the submitter's */
    void *private;
    struct block_device *bdev;
    unsigned long start;
    unsigned int sectors; /* the bio's own count is used up at its end */
    enum req_op op;
};

static void counted_end(struct bio *bio) {
    struct counted *counted = bio->bi_private;

    compat_stat_end(counted->bdev, counted->op, counted->sectors, counted->start);
    bio->bi_end_io = counted->end_io;
    bio->bi_private = counted->private;
    kfree(counted);
    if (bio->bi_end_io)
        bio->bi_end_io(bio);
}

void trak_stat_start(struct bio *bio) {
    const unsigned int sectors = bio_sectors(bio);
    struct counted *counted;
    unsigned long start;

    if (sectors == 0 || !blk_queue_io_stat(bdev_get_queue(bio->bi_bdev)))
        return;
    start = compat_stat_start(bio->bi_bdev, bio_op(bio), sectors);
    counted = kmalloc(sizeof(*counted), GFP_NOWAIT | __GFP_NOWARN);
    if (!counted) {
        compat_stat_end(bio->bi_bdev, bio_op(bio), sectors, start);
        return;
    }
    counted->end_io = bio->bi_end_io;
    counted->private = bio->bi_private;
    counted->bdev = bio->bi_bdev;
    counted->start = start;
    counted->sectors = sectors;
    counted->op = bio_op(bio);
    bio->bi_end_io = counted_end;
    bio->bi_private = counted;
}
