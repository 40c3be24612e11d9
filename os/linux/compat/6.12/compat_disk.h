// os/linux/compat/6.12/compat_disk.h: making disks and their operations, in kernel 6.12
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_DISK_H
#define TRAK_COMPAT_DISK_H

#include <linux/blkdev.h>
#include <linux/err.h>

static inline struct gendisk *compat_alloc_disk(void) {
    struct gendisk *disk = blk_alloc_disk(NULL, NUMA_NO_NODE);

    return IS_ERR(disk) ? NULL : disk;
}

static inline uint32_t compat_open_mode(blk_mode_t mode) {
    return (__force uint32_t)(mode & (BLK_OPEN_READ | BLK_OPEN_WRITE));
}

/* compat_open, compat_release and compat_ioctl, as the kernel calls them, of functions that have plain
 * arguments. How a device was opened isn't told on its release. */
#define COMPAT_DISK_OPERATIONS(open_fn, release_fn, ioctl_fn)                                      \
    static int compat_open(struct gendisk *disk, blk_mode_t mode) {                                \
        return open_fn(disk->part0, compat_open_mode(mode));                                       \
    }                                                                                              \
    static void compat_release(struct gendisk *disk) {                                             \
        release_fn(disk, OS_FMODE_READ);                                                           \
    }                                                                                              \
    static int compat_ioctl(struct block_device *bdev, blk_mode_t mode, unsigned int cmd,          \
                            unsigned long arg) {                                                   \
        return ioctl_fn(bdev, compat_open_mode(mode), cmd, arg);                                   \
    }

#endif
