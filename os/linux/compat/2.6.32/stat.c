// os/linux/compat/2.6.32/stat.c: what /proc/diskstats and /sys/block/NODE/stat count of a node
// SPDX-License-Identifier: GPL-2.0-only
//
// As os/linux/stat.c. In this kernel how many requests are in flight is a plain number that the queue's
// lock guards; no request waits for it longer than for a few instructions.
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/genhd.h>
#include <linux/slab.h>

#include "os/linux/block.h"

struct counted {
    bio_end_io_t *end_io; /* the submitter's */
    void *private;
    struct block_device *bdev;
    unsigned long start;
    int rw;
};

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

    count_end(counted->bdev->bd_disk, counted->rw, counted->start);
    bio->bi_end_io = counted->end_io;
    bio->bi_private = counted->private;
    kfree(counted);
    if (bio->bi_end_io)
        bio->bi_end_io(bio, error);
}

void trak_stat_start(struct bio *bio) {
    struct gendisk *disk = bio->bi_bdev->bd_disk;
    const unsigned int sectors = bio_sectors(bio);
    const int rw = bio_data_dir(bio);
    struct counted *counted;

    if (sectors == 0 || !blk_queue_io_stat(disk->queue))
        return;
    count_start(disk, rw, sectors);
    counted = kmalloc(sizeof(*counted), GFP_NOWAIT | __GFP_NOWARN);
    if (!counted) {
        count_end(disk, rw, jiffies);
        return;
    }
    counted->end_io = bio->bi_end_io;
    counted->private = bio->bi_private;
    counted->bdev = bio->bi_bdev;
    counted->start = jiffies;
    counted->rw = rw;
    bio->bi_end_io = counted_end;
    bio->bi_private = counted;
}
