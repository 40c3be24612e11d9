// os/linux/bdev.c: block devices that exist already
// SPDX-License-Identifier: GPL-2.0-only
//
// Claims     A device that is opened for writing is claimed, so that nobody mounts it, swaps to it or
//            stacks on it while it is ours. One that somebody else has claimed is opened all the same:
//            who asked finds it mounted or open, and says so.
// Closing    How a device was opened is needed to close it and is not the driver's to remember: a list
//            has an entry for each.
#include <linux/blkdev.h>
#include <linux/fs.h>
#include <linux/list.h>
#include <linux/mutex.h>
#include <linux/pagemap.h>
#include <linux/slab.h>

#include "os/linux/block.h"

#include <compat_bdev.h>

struct opened {
    struct list_head link;
    struct block_device *bdev;
    compat_opened how;
};

static LIST_HEAD(all_opened); /* newest first */
static DEFINE_MUTEX(opened_mutex);
static char claim[] = "trak";

static int open_and_claim(struct opened *opened, dev_t dev, uint32_t mode) {
    int rc = -EBUSY;

    if (mode & OS_FMODE_WRITE)
        rc = compat_bdev_open(dev, mode, claim, &opened->bdev, &opened->how);
    if (rc == -EBUSY)
        rc = compat_bdev_open(dev, mode, NULL, &opened->bdev, &opened->how);
    return rc;
}

struct os_bdev *os_open_by_devnum(os_dev_t dev, uint32_t mode) {
    struct opened *opened = kmalloc(sizeof(*opened), GFP_KERNEL);
    int rc = -ENOMEM;

    if (opened)
        rc = open_and_claim(opened, MKDEV(os_major(dev), os_minor(dev)), mode);
    if (rc != 0) {
        kfree(opened);
        return (struct os_bdev *)os_err_ptr(rc);
    }
    mutex_lock(&opened_mutex);
    list_add(&opened->link, &all_opened);
    mutex_unlock(&opened_mutex);
    return (struct os_bdev *)opened->bdev;
}

static struct opened *take_opened(const struct block_device *bdev) {
    struct opened *opened;

    mutex_lock(&opened_mutex);
    list_for_each_entry(opened, &all_opened, link) {
        if (opened->bdev != bdev)
            continue;
        list_del(&opened->link);
        mutex_unlock(&opened_mutex);
        return opened;
    }
    mutex_unlock(&opened_mutex);
    return NULL;
}

void os_blkdev_put(struct os_bdev *bdev, uint32_t mode) {
    struct opened *opened = take_opened(real_bdev(bdev));

    if (WARN_ON(!opened))
        return;
    compat_bdev_close(opened->bdev, opened->how);
    kfree(opened);
}

os_dev_t os_bdev_dev(const struct os_bdev *bdev) {
    const dev_t dev = real_bdev(bdev)->bd_dev;

    return os_mkdev(MAJOR(dev), MINOR(dev));
}

uint64_t os_bdev_size(const struct os_bdev *bdev) {
    return compat_bdev_bytes(real_bdev(bdev));
}

uint32_t os_bdev_block_size(const struct os_bdev *bdev) {
    return bdev_logical_block_size(real_bdev(bdev));
}

uint32_t os_bdev_openers(const struct os_bdev *bdev) {
    return compat_bdev_openers(real_bdev(bdev));
}

struct os_disk *os_bdev_disk(const struct os_bdev *bdev) {
    return (struct os_disk *)real_bdev(bdev)->bd_disk;
}

struct os_queue *os_bdev_queue(const struct os_bdev *bdev) {
    return os_disk_queue(os_bdev_disk(bdev));
}

int os_fsync_bdev(struct os_bdev *bdev) {
    return sync_blockdev(real_bdev(bdev));
}

void os_invalidate_bdev(struct os_bdev *bdev) {
    invalidate_bdev(real_bdev(bdev));
}

int os_bdev_ioctl(struct os_bdev *bdev, uint32_t mode, uint32_t cmd, os_uaddr arg) {
    return compat_bdev_ioctl(real_bdev(bdev), mode, cmd, arg);
}
