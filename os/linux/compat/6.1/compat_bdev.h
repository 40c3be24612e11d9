// os/linux/compat/6.1/compat_bdev.h: opening, closing and freezing block devices, in kernel 6.1
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_BDEV_H
#define TRAK_COMPAT_BDEV_H

#include <linux/blkdev.h>
#include <linux/fs.h>

typedef fmode_t compat_mode;   /* how a block device is opened; read is 1, write is 2 */
typedef fmode_t compat_opened; /* what closing one needs to know */

/* Claimed for the holder, or not claimed when that is null: 0 or a negative errno (-EBUSY: somebody
 * else has claimed it). */
static inline int compat_bdev_open(dev_t dev, uint32_t mode, void *holder,
                                   struct block_device **bdev, compat_opened *how) {
    *how = (compat_mode)mode | (holder ? FMODE_EXCL : 0);
    *bdev = blkdev_get_by_dev(dev, *how, holder);
    return PTR_ERR_OR_ZERO(*bdev);
}

static inline void compat_bdev_close(struct block_device *bdev, compat_opened how) {
    blkdev_put(bdev, how);
}

static inline u64 compat_bdev_bytes(struct block_device *bdev) {
    return bdev_nr_bytes(bdev);
}

static inline unsigned int compat_bdev_openers(struct block_device *bdev) {
    return atomic_read(&bdev->bd_openers);
}

static inline int compat_bdev_ioctl(struct block_device *bdev, uint32_t mode, unsigned int cmd,
                                    unsigned long arg) {
    const struct block_device_operations *ops = bdev->bd_disk->fops;

    return ops->ioctl ? ops->ioctl(bdev, (__force compat_mode)mode, cmd, arg) : 0;
}

static inline bool compat_bdev_mounted(struct block_device *bdev) {
    return READ_ONCE(bdev->bd_super) != NULL;
}

/* After a freeze: the file system that is frozen, with an active reference beside the freeze's own, or
 * null where there is none. */
static inline struct super_block *compat_bdev_frozen(struct block_device *bdev) {
    struct super_block *super = READ_ONCE(bdev->bd_fsfreeze_sb);

    if (super)
        atomic_inc(&super->s_active);
    return super;
}

static inline int compat_bdev_freeze(struct block_device *bdev) {
    return freeze_bdev(bdev);
}

static inline int compat_bdev_thaw(struct block_device *bdev) {
    return thaw_bdev(bdev);
}

#endif
