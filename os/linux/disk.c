// os/linux/disk.c: block devices that the driver makes
// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel makes a disk and its queue together, the driver one after the other: the disk is made
// first, the driver's record for the queue joins it in os_disk_set_queue and goes with it.
//
// A disk may outlive os_put_disk while the kernel refers to it; the record goes with the last reference,
// and the module must not go before that.
#include <linux/blkdev.h>
#include <linux/module.h>
#include <linux/sched/task.h>
#include <linux/slab.h>
#include <linux/wait.h>

#include "os/linux/block.h"
#include "os/linux/gfp.h"

#include <compat_disk.h>

/* The disk's private_data. */
struct node {
    const struct os_block_device_operations *ops;
    struct os_queue *queue; /* null until os_disk_set_queue */
    struct trak_under_way under_way;
};

static atomic_t node_cnt = ATOMIC_INIT(0);
static DECLARE_WAIT_QUEUE_HEAD(no_nodes);

static struct node *node_of(const struct gendisk *disk) {
    return disk->private_data;
}

static void free_node(struct gendisk *disk) {
    struct node *node = node_of(disk);

    kfree(node->queue);
    kfree(node);
    if (atomic_dec_and_test(&node_cnt))
        wake_up(&no_nodes);
}

void trak_disk_exit(void) {
    wait_event(no_nodes, atomic_read(&node_cnt) == 0);
}

/* ---- what the kernel calls ---------------------------------------------------------------------- */

static int node_open(struct block_device *bdev, uint32_t mode) {
    if ((mode & OS_FMODE_WRITE) && bdev_read_only(bdev))
        return -EACCES;
    return node_of(bdev->bd_disk)->ops->open((struct os_bdev *)bdev, mode);
}

/* What a process that ends left open is closed after it gave up its root folder. The driver saves bitmaps
 * then, into files that it looks up: by the root of the first process, which is never given up. */
static void node_release(struct gendisk *disk, uint32_t mode) {
    const bool rootless = current->fs == NULL;

    if (rootless) {
        task_lock(current);
        current->fs = init_task.fs;
        task_unlock(current);
    }
    node_of(disk)->ops->release((struct os_disk *)disk, mode);
    if (rootless) {
        task_lock(current);
        current->fs = NULL;
        task_unlock(current);
    }
}

static int node_ioctl(struct block_device *bdev, uint32_t mode, unsigned int cmd,
                      unsigned long arg) {
    return node_of(bdev->bd_disk)->ops->ioctl((struct os_bdev *)bdev, mode, cmd, arg);
}

/* What the driver knows: reads, writes and their kin. Requests of zones are refused; a request larger
 * than the disk below takes is cut here, so that no piece is larger than the driver's pools. */
static void node_submit(struct bio *bio) {
    struct os_queue *queue = node_of(bio->bi_bdev->bd_disk)->queue;

    switch (bio_op(bio)) {
    case REQ_OP_READ:
    case REQ_OP_WRITE:
    case REQ_OP_DISCARD:
    case REQ_OP_SECURE_ERASE:
    case REQ_OP_WRITE_ZEROES:
        break;
    default:
        bio->bi_status = BLK_STS_NOTSUPP;
        bio_endio(bio);
        return;
    }
    bio = bio_split_to_limits(bio);
    if (!bio)
        return;
    trak_stat_start(bio, &node_of(bio->bi_bdev->bd_disk)->under_way);
    queue->make_request(queue, (struct os_bio *)bio);
}

COMPAT_DISK_OPERATIONS(node_open, node_release, node_ioctl)

static const struct block_device_operations node_operations = {
    .owner = THIS_MODULE,
    .submit_bio = node_submit,
    .open = compat_open,
    .release = compat_release,
    .ioctl = compat_ioctl,
    .compat_ioctl = blkdev_compat_ptr_ioctl,
    .free_disk = free_node,
};

/* ---- what the driver calls ---------------------------------------------------------------------- */

int os_register_blkdev(uint32_t major, const char *name) {
    return register_blkdev(major, name);
}

void os_unregister_blkdev(uint32_t major, const char *name) {
    unregister_blkdev(major, name);
}

struct os_disk *os_alloc_disk(int minors) {
    struct node *node = kzalloc(sizeof(*node), GFP_KERNEL);
    struct gendisk *disk = node ? compat_alloc_disk() : NULL;

    if (!disk) {
        kfree(node);
        return NULL;
    }
    trak_under_way_init(&node->under_way);
    atomic_inc(&node_cnt);
    disk->minors = minors;
    disk->flags |= GENHD_FL_NO_PART;
    disk->fops = &node_operations;
    disk->private_data = node;
    return (struct os_disk *)disk;
}

void os_disk_setup(struct os_disk *disk, uint32_t major, uint32_t first_minor, const char *name,
                   const struct os_block_device_operations *ops) {
    struct gendisk *d = real_disk(disk);

    d->major = major;
    d->first_minor = first_minor;
    snprintf(d->disk_name, sizeof(d->disk_name), "%s", name);
    node_of(d)->ops = ops;
}

void os_disk_set_capacity(struct os_disk *disk, uint64_t sectors) {
    set_capacity(real_disk(disk), sectors);
}

void os_disk_set_queue(struct os_disk *disk, struct os_queue *queue) {
    node_of(real_disk(disk))->queue = queue;
    queue->disk = real_disk(disk);
}

void os_disk_set_ro(struct os_disk *disk, int read_only) {
    set_disk_ro(real_disk(disk), read_only != 0);
}

uint32_t os_disk_first_minor(const struct os_disk *disk) {
    return real_disk(disk)->first_minor;
}

struct os_queue *os_disk_queue(const struct os_disk *disk) {
    struct gendisk *d = real_disk(disk);

    return d->fops == &node_operations ? node_of(d)->queue : foreign_queue(d);
}

int os_add_disk(struct os_disk *disk) {
    return add_disk(real_disk(disk));
}

void os_del_gendisk(struct os_disk *disk) {
    del_gendisk(real_disk(disk));
}

int os_disk_drain(struct os_disk *disk, uint64_t ticks) {
    return trak_under_way_drain(&node_of(real_disk(disk))->under_way, ticks);
}

/* One that was never added has no free_disk called. */
void os_put_disk(struct os_disk *disk) {
    struct gendisk *d = real_disk(disk);

    if (!test_bit(GD_ADDED, &d->state)) {
        free_node(d);
        d->private_data = NULL;
    }
    put_disk(d);
}
