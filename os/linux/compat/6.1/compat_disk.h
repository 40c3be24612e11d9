// os/linux/compat/6.1/compat_disk.h: making disks and their operations, in kernel 6.1
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_DISK_H
#define TRAK_COMPAT_DISK_H

#include <linux/blkdev.h>

static inline struct gendisk *compat_alloc_disk(void) {
    return blk_alloc_disk(NUMA_NO_NODE);
}

static inline uint32_t compat_open_mode(fmode_t mode) {
    return (__force uint32_t)(mode & (FMODE_READ | FMODE_WRITE));
}

/* compat_open, compat_release and compat_ioctl, as the kernel calls them, of functions that have plain
 * arguments. */
#define COMPAT_DISK_OPERATIONS(open_fn, release_fn, ioctl_fn)                                      \
    static int compat_open(struct block_device *bdev, fmode_t mode) {                              \
        return open_fn(bdev, compat_open_mode(mode));                                              \
    }                                                                                              \
    static void compat_release(struct gendisk *disk, fmode_t mode) {                               \
        release_fn(disk, compat_open_mode(mode));                                                  \
    }                                                                                              \
    static int compat_ioctl(struct block_device *bdev, fmode_t mode, unsigned int cmd,             \
                            unsigned long arg) {                                                   \
        return ioctl_fn(bdev, compat_open_mode(mode), cmd, arg);                                   \
    }

#endif
