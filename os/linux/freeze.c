// os/linux/freeze.c: the file system on a block device: whether there is one, and stopping it
// SPDX-License-Identifier: GPL-2.0-only
//
// The driver asks a super block nothing: what it gets in its place is the device, which it keeps open.
#include <linux/blkdev.h>
#include <linux/fs.h>

#include "os/linux/block.h"

#include <compat_bdev.h>

struct os_super *os_get_super(struct os_bdev *bdev) {
    return compat_bdev_mounted(real_bdev(bdev)) ? (struct os_super *)bdev : NULL;
}

void os_drop_super(struct os_super *super) {}

/* The kernel counts a freeze of a device without a file system too, and would let nobody mount it. */
struct os_super *os_freeze_bdev(struct os_bdev *bdev) {
    const int rc = compat_bdev_freeze(real_bdev(bdev));

    if (rc != 0)
        return (struct os_super *)os_err_ptr(rc);
    if (compat_bdev_frozen(real_bdev(bdev)))
        return (struct os_super *)bdev;
    compat_bdev_thaw(real_bdev(bdev));
    return NULL;
}

int os_thaw_bdev(struct os_bdev *bdev, struct os_super *super) {
    return super ? compat_bdev_thaw(real_bdev(bdev)) : 0;
}
