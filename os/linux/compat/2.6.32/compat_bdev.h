// os/linux/compat/2.6.32/compat_bdev.h: opening and closing block devices, in kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_BDEV_H
#define TRAK_COMPAT_BDEV_H

#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/err.h>
#include <linux/fs.h>

/* What closing one needs to know. A disk that is pulled out takes its queue away from who has it open,
 * but for a reference of ours: requests then find it dead, and fail. */
typedef struct {
    fmode_t mode;
    bool claimed;
    struct request_queue *queue; /* null for one that was dead before */
} compat_opened;

/* Claimed for the holder, or not claimed when that is null: 0 or a negative errno (-EBUSY: somebody
 * else has claimed it). */
static inline int compat_bdev_open(dev_t dev, uint32_t mode, void *holder,
                                   struct block_device **bdev, compat_opened *how) {
    int rc;

    how->mode = (__force fmode_t)mode;
    how->claimed = holder != NULL;
    *bdev = open_by_devnum(dev, how->mode);
    if (IS_ERR(*bdev))
        return PTR_ERR(*bdev);
    rc = holder ? bd_claim(*bdev, holder) : 0;
    if (rc != 0) {
        blkdev_put(*bdev, how->mode);
        return rc;
    }
    how->queue = bdev_get_queue(*bdev);
    if (blk_get_queue(how->queue) != 0)
        how->queue = NULL;
    return 0;
}

static inline void compat_bdev_close(struct block_device *bdev, compat_opened how) {
    if (how.claimed)
        bd_release(bdev);
    blkdev_put(bdev, how.mode);
    if (how.queue)
        blk_put_queue(how.queue);
}

static inline u64 compat_bdev_bytes(struct block_device *bdev) {
    return i_size_read(bdev->bd_inode);
}

static inline unsigned int compat_bdev_openers(struct block_device *bdev) {
    return ACCESS_ONCE(bdev->bd_openers);
}

static inline int compat_bdev_ioctl(struct block_device *bdev, uint32_t mode, unsigned int cmd,
                                    unsigned long arg) {
    const struct block_device_operations *ops = bdev->bd_disk->fops;

    if (!ops->ioctl && !ops->locked_ioctl)
        return 0;
    return __blkdev_driver_ioctl(bdev, (__force fmode_t)mode, cmd, arg);
}

#endif
