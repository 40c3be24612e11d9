// os/linux/stat.c: what /proc/diskstats and /sys/block/NODE/stat count of a node
// SPDX-License-Identifier: GPL-2.0-only
//
// A request counts from its entry until its end, so its end function and private data wait in a record
// meanwhile; what the driver itself puts there (bio.c) comes and goes on top. The record comes from a pool:
// no request fails for it, and none is under way that is not counted, or who waits for those that are
// would go on too early. What is for the eyes of men is left out where /sys/block/NODE/queue/iostats is 0.
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/mempool.h>
#include <linux/slab.h>

#include "os/linux/block.h"

#include <compat_stat.h>

/* More than a submitter inside another driver's make-request function can have under way unseen. */
enum { record_reserve = 256 };

struct counted {
    bio_end_io_t *end_io; /* the submitter's */
    void *private;
    struct trak_under_way *under_way;
    int turn;
    bool shown; /* in the statistics, by what follows */
    struct block_device *bdev;
    unsigned long start;
    unsigned int sectors; /* the bio's own count is used up at its end */
    enum req_op op;
};

static struct kmem_cache *record_cache;
static mempool_t *records;

int trak_stat_init(void) {
    record_cache = kmem_cache_create("trak_request", sizeof(struct counted), 0, 0, NULL);
    records = record_cache ? mempool_create_slab_pool(record_reserve, record_cache) : NULL;
    if (records)
        return 0;
    kmem_cache_destroy(record_cache);
    return -ENOMEM;
}

void trak_stat_exit(void) {
    mempool_destroy(records);
    kmem_cache_destroy(record_cache);
}

static void counted_end(struct bio *bio) {
    struct counted *counted = bio->bi_private;

    if (counted->shown)
        compat_stat_end(counted->bdev, counted->op, counted->sectors, counted->start);
    trak_under_way_leave(counted->under_way, counted->turn);
    bio->bi_end_io = counted->end_io;
    bio->bi_private = counted->private;
    mempool_free(counted, records);
    if (bio->bi_end_io)
        bio->bi_end_io(bio);
}

void trak_stat_start(struct bio *bio, struct trak_under_way *under_way) {
    struct counted *counted = mempool_alloc(records, GFP_NOIO);

    counted->end_io = bio->bi_end_io;
    counted->private = bio->bi_private;
    counted->under_way = under_way;
    counted->turn = trak_under_way_enter(under_way);
    counted->bdev = bio->bi_bdev;
    counted->sectors = bio_sectors(bio);
    counted->op = bio_op(bio);
    counted->shown = counted->sectors != 0 && blk_queue_io_stat(bdev_get_queue(bio->bi_bdev));
    if (counted->shown)
        counted->start = compat_stat_start(counted->bdev, counted->op, counted->sectors);
    bio->bi_end_io = counted_end;
    bio->bi_private = counted;
}
