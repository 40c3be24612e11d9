// os/linux/compat/2.6.32/stat.c: what /proc/diskstats and /sys/block/NODE/stat count of a node
// SPDX-License-Identifier: GPL-2.0-only
//
// As os/linux/stat.c. In this kernel how many requests are in flight is a plain number that the queue's
// lock guards; no request waits for it longer than for a few instructions.
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/genhd.h>
#include <linux/mempool.h>
#include <linux/slab.h>

#include "os/linux/block.h"

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
    int rw;
};

static struct kmem_cache *record_cache;
static mempool_t *records;

int trak_stat_init(void) {
    record_cache = kmem_cache_create("trak_request", sizeof(struct counted), 0, 0, NULL);
    records = record_cache ? mempool_create_slab_pool(record_reserve, record_cache) : NULL;
    if (records)
        return 0;
    if (record_cache)
        kmem_cache_destroy(record_cache);
    return -ENOMEM;
}

void trak_stat_exit(void) {
    mempool_destroy(records);
    kmem_cache_destroy(record_cache);
}

static void count_start(struct gendisk *disk, int rw, unsigned int sectors) {
    unsigned long flags;
    int cpu;

    spin_lock_irqsave(disk->queue->queue_lock, flags);
    cpu = part_stat_lock();
    part_round_stats(cpu, &disk->part0);
    part_stat_inc(cpu, &disk->part0, ios[rw]);
    part_stat_add(cpu, &disk->part0, sectors[rw], sectors);
    part_inc_in_flight(&disk->part0, rw);
    part_stat_unlock();
    spin_unlock_irqrestore(disk->queue->queue_lock, flags);
}

static void count_end(struct gendisk *disk, int rw, unsigned long start) {
    unsigned long flags;
    int cpu;

    spin_lock_irqsave(disk->queue->queue_lock, flags);
    cpu = part_stat_lock();
    part_stat_add(cpu, &disk->part0, ticks[rw], jiffies - start);
    part_round_stats(cpu, &disk->part0);
    part_dec_in_flight(&disk->part0, rw);
    part_stat_unlock();
    spin_unlock_irqrestore(disk->queue->queue_lock, flags);
}

static void counted_end(struct bio *bio, int error) {
    struct counted *counted = bio->bi_private;

    if (counted->shown)
        count_end(counted->bdev->bd_disk, counted->rw, counted->start);
    trak_under_way_leave(counted->under_way, counted->turn);
    bio->bi_end_io = counted->end_io;
    bio->bi_private = counted->private;
    mempool_free(counted, records);
    if (bio->bi_end_io)
        bio->bi_end_io(bio, error);
}

void trak_stat_start(struct bio *bio, struct trak_under_way *under_way) {
    struct counted *counted = mempool_alloc(records, GFP_NOIO);
    struct gendisk *disk = bio->bi_bdev->bd_disk;

    counted->end_io = bio->bi_end_io;
    counted->private = bio->bi_private;
    counted->under_way = under_way;
    counted->turn = trak_under_way_enter(under_way);
    counted->bdev = bio->bi_bdev;
    counted->start = jiffies;
    counted->rw = bio_data_dir(bio);
    counted->shown = bio_sectors(bio) != 0 && blk_queue_io_stat(disk->queue);
    if (counted->shown)
        count_start(disk, counted->rw, bio_sectors(bio));
    bio->bi_end_io = counted_end;
    bio->bi_private = counted;
}
