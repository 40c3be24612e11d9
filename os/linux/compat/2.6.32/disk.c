// os/linux/compat/2.6.32/disk.c: block devices that the driver makes, in kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
//
// A disk may outlive os_put_disk while the kernel refers to it: somebody is about to open it, or reads
// /proc/diskstats. Its queue goes with the last reference, and the module must not go before that.
#include <linux/blkdev.h>
#include <linux/compat.h>
#include <linux/genhd.h>
#include <linux/module.h>
#include <linux/sched.h>
#include <linux/wait.h>

#include "os/linux/block.h"

static const struct os_block_device_operations *ops_of(const struct gendisk *disk) {
    return disk->private_data;
}

static atomic_t disk_cnt = ATOMIC_INIT(0);
static DECLARE_WAIT_QUEUE_HEAD(no_disks);

/* Called in place of the kernel's own release of disks. */
static void release_disk(struct device *dev) {
    struct request_queue *queue = dev_to_disk(dev)->queue;

    dev->type->release(dev);
    if (queue)
        trak_queue_release(queue);
    if (atomic_dec_and_test(&disk_cnt))
        wake_up(&no_disks);
}

void trak_disk_exit(void) {
    wait_event(no_disks, atomic_read(&disk_cnt) == 0);
}

static uint32_t open_mode(fmode_t mode) {
    return (__force uint32_t)(mode & (FMODE_READ | FMODE_WRITE));
}

static int node_open(struct block_device *bdev, fmode_t mode) {
    if ((mode & FMODE_WRITE) && bdev_read_only(bdev))
        return -EACCES;
    return ops_of(bdev->bd_disk)->open((struct os_bdev *)bdev, open_mode(mode));
}

static int node_release(struct gendisk *disk, fmode_t mode) {
    return ops_of(disk)->release((struct os_disk *)disk, open_mode(mode));
}

static int node_ioctl(struct block_device *bdev, fmode_t mode, unsigned int cmd,
                      unsigned long arg) {
    return ops_of(bdev->bd_disk)->ioctl((struct os_bdev *)bdev, open_mode(mode), cmd, arg);
}

#ifdef CONFIG_COMPAT
static int node_compat_ioctl(struct block_device *bdev, fmode_t mode, unsigned int cmd,
                             unsigned long arg) {
    return node_ioctl(bdev, mode, cmd, (unsigned long)compat_ptr(arg));
}
#endif

static const struct block_device_operations node_operations = {
    .owner = THIS_MODULE,
    .open = node_open,
    .release = node_release,
    .ioctl = node_ioctl,
#ifdef CONFIG_COMPAT
    .compat_ioctl = node_compat_ioctl,
#endif
};

int os_register_blkdev(uint32_t major, const char *name) {
    return register_blkdev(major, name);
}

void os_unregister_blkdev(uint32_t major, const char *name) {
    unregister_blkdev(major, name);
}

struct os_disk *os_alloc_disk(int minors) {
    struct gendisk *disk = alloc_disk(minors);

    if (!disk)
        return NULL;
    atomic_inc(&disk_cnt);
    disk->fops = &node_operations;
    disk_to_dev(disk)->release = release_disk;
    return (struct os_disk *)disk;
}

void os_disk_setup(struct os_disk *disk, uint32_t major, uint32_t first_minor, const char *name,
                   const struct os_block_device_operations *ops) {
    struct gendisk *d = real_disk(disk);

    d->major = major;
    d->first_minor = first_minor;
    snprintf(d->disk_name, sizeof(d->disk_name), "%s", name);
    d->private_data = (void *)ops;
}

void os_disk_set_capacity(struct os_disk *disk, uint64_t sectors) {
    set_capacity(real_disk(disk), sectors);
}

void os_disk_set_queue(struct os_disk *disk, struct os_queue *queue) {
    trak_queue_hold(real_queue(queue));
    real_disk(disk)->queue = real_queue(queue);
}

void os_disk_set_ro(struct os_disk *disk, int read_only) {
    set_disk_ro(real_disk(disk), read_only != 0);
}

uint32_t os_disk_first_minor(const struct os_disk *disk) {
    return real_disk(disk)->first_minor;
}

struct os_queue *os_disk_queue(const struct os_disk *disk) {
    return (struct os_queue *)real_disk(disk)->queue;
}

int os_add_disk(struct os_disk *disk) {
    add_disk(real_disk(disk));
    return 0;
}

void os_del_gendisk(struct os_disk *disk) {
    del_gendisk(real_disk(disk));
}

void os_put_disk(struct os_disk *disk) {
    put_disk(real_disk(disk));
}
