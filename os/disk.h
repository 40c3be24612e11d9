// os/disk.h: block devices that the driver makes
// SPDX-License-Identifier: GPL-2.0-only
//
// Making one: os_register_blkdev once; then per disk os_alloc_disk, os_alloc_queue, the setters,
// os_add_disk (from here on it is visible and may be opened). Taking it away: os_del_gendisk,
// os_cleanup_queue, os_put_disk; the last two alone for one that was not added.
#ifndef TRAK_OS_DISK_H
#define TRAK_OS_DISK_H

#include "os/base.h"
#include "os/bdev.h"
#include "os/bio.h"

OS_BEGIN

/* Operations of a disk of ours. Each runs in process context and may sleep. */
struct os_block_device_operations {
    int (*open)(struct os_bdev *bdev, uint32_t mode);
    int (*release)(struct os_disk *disk, uint32_t mode);
    int (*ioctl)(struct os_bdev *bdev, uint32_t mode, uint32_t cmd, os_uaddr arg);
};

/* Takes a bio for the queue. Context: sleep, in the submitter's task. The bio is the function's
 * until it is handed on or ended; the result is not looked at. */
typedef int (*os_make_request_fn)(struct os_queue *queue, struct os_bio *bio);
typedef void (*os_unplug_fn)(struct os_queue *queue);

/* Major 0 asks for a free one, which is returned; else 0 or a negative errno. Context: sleep. */
int os_register_blkdev(uint32_t major, const char *name) OS_MUST_CHECK;
void os_unregister_blkdev(uint32_t major, const char *name);

struct os_disk *os_alloc_disk(int minors) OS_MUST_CHECK;   /* null on failure; sleep */
struct os_queue *os_alloc_queue(os_gfp gfp) OS_MUST_CHECK; /* null on failure; sleep */
void os_disk_setup(struct os_disk *disk, uint32_t major, uint32_t first_minor, const char *name,
                   const struct os_block_device_operations *ops);
void os_disk_set_capacity(struct os_disk *disk, uint64_t sectors);
void os_disk_set_queue(struct os_disk *disk, struct os_queue *queue);
void os_disk_set_ro(struct os_disk *disk, int read_only);
uint32_t os_disk_first_minor(const struct os_disk *disk);
struct os_queue *os_disk_queue(const struct os_disk *disk); /* null before one was set */

void os_queue_make_request(struct os_queue *queue, os_make_request_fn fn);
void os_queue_set_unplug(struct os_queue *queue, os_unplug_fn fn);
void os_queue_set_data(struct os_queue *queue, void *data);
void *os_queue_data(const struct os_queue *queue);
/* The request-size limits (and what a request may be: flush, discard, zeroes) of another queue. */
void os_queue_copy_limits(struct os_queue *to, const struct os_queue *from);

/* 0, or a negative errno with nothing added. A disk of one minor has no partitions and is not searched
 * for any: nobody opens it in here. Context: sleep. */
int os_add_disk(struct os_disk *disk) OS_MUST_CHECK;
/* Newer kernels wait in here for calls of the disk's open and release operations and of its
 * make-request function that are under way, older ones don't. So the caller has no lock to itself that
 * one of these takes, and they may still be under way afterwards. Context: sleep. */
void os_del_gendisk(struct os_disk *disk);
/* Waits until each request that came to this disk of ours before the call has ended, wherever it is by
 * now; not for those that come meanwhile. 0, or -EAGAIN when that took longer than `ticks`.
 * Context: sleep; the caller has no lock that a request needs to get on. */
int os_disk_drain(struct os_disk *disk, uint64_t ticks) OS_MUST_CHECK;
void os_cleanup_queue(struct os_queue *queue);
void os_put_disk(struct os_disk *disk);

OS_END

#endif
