// os/bdev.h: block devices that exist already, and their queues
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_BDEV_H
#define TRAK_OS_BDEV_H

#include "os/base.h"
#include "os/uaccess.h"

OS_BEGIN

struct os_bdev;  /* an opened block device */
struct os_disk;  /* the disk that it is, or is a part of */
struct os_queue; /* that disk's request queue */
struct os_super; /* a mounted file system's super block */

/* The kernel's 32-bit form of a device number. */
typedef uint32_t os_dev_t;
static inline os_dev_t os_mkdev(uint32_t major, uint32_t minor) {
    return (major << 20) | (minor & 0xfffff);
}
static inline uint32_t os_major(os_dev_t dev) {
    return dev >> 20;
}
static inline uint32_t os_minor(os_dev_t dev) {
    return dev & 0xfffff;
}

enum { OS_FMODE_READ = 1, OS_FMODE_WRITE = 2 };

/* Opens a device by number; an error value on failure. A node of our own runs the driver's open
 * operation, one call of open or release at a time: the caller has no lock to itself that these take.
 * Context: sleep. */
struct os_bdev *os_open_by_devnum(os_dev_t dev, uint32_t mode) OS_MUST_CHECK;
void os_blkdev_put(struct os_bdev *bdev, uint32_t mode); /* whatever mode it was opened with */

os_dev_t os_bdev_dev(const struct os_bdev *bdev);
uint64_t os_bdev_size(const struct os_bdev *bdev);       /* bytes, of the device's inode */
uint32_t os_bdev_block_size(const struct os_bdev *bdev); /* logical block, bytes, a power of two */
uint32_t os_bdev_openers(const struct os_bdev *bdev);    /* opens by anybody, this one included */
struct os_disk *os_bdev_disk(const struct os_bdev *bdev);
struct os_queue *os_bdev_queue(const struct os_bdev *bdev);

/* The file system mounted on the device, referenced, or null. Context: sleep. */
struct os_super *os_get_super(struct os_bdev *bdev) OS_MUST_CHECK;
void os_drop_super(struct os_super *super);

int os_fsync_bdev(struct os_bdev *bdev);       /* dirty data of the device to the disk; sleep */
void os_invalidate_bdev(struct os_bdev *bdev); /* drops its clean cached pages; sleep */

/* Stops the file system on the device at a consistent point: no write of it is under way when this
 * returns, and none starts until the thaw. Without a file system nothing is stopped and null is
 * returned, which os_thaw_bdev takes. An error value on failure. The file system may write to the
 * device first: of a node of our own, the caller has no lock to itself that its requests take.
 * Context: sleep. */
struct os_super *os_freeze_bdev(struct os_bdev *bdev) OS_MUST_CHECK;
int os_thaw_bdev(struct os_bdev *bdev, struct os_super *super);

/* The device's own ioctl operation; 0 where its driver has none. Context: sleep. */
int os_bdev_ioctl(struct os_bdev *bdev, uint32_t mode, uint32_t cmd, os_uaddr arg);

/* Tells the queue to start what it holds back; nothing where queues hold nothing back.
 * Context: any. Null is allowed. */
void os_queue_unplug(struct os_queue *queue);

OS_END

#endif
