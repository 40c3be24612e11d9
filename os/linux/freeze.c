// os/linux/freeze.c: the file system on a block device: whether there is one, and stopping it
// SPDX-License-Identifier: GPL-2.0-only
//
// The driver asks a super block nothing: what it gets in its place is the device, which it keeps open.
#include <linux/blkdev.h>
#include <linux/fs.h>

#include "os/linux/block.h"

#include <compat_bdev.h>

static struct os_super *super_on(struct block_device *bdev) {
    return compat_bdev_mounted(bdev) ? (struct os_super *)bdev : NULL;
}

struct os_super *os_get_super(struct os_bdev *bdev) {
    return super_on(real_bdev(bdev));
}

void os_drop_super(struct os_super *super) {}

/* The kernel counts a freeze of a device without a file system too, and would let nobody mount it. */
struct os_super *os_freeze_bdev(struct os_bdev *bdev) {
    struct os_super *super;
    const int rc = compat_bdev_freeze(real_bdev(bdev));

    if (rc != 0)
        return (struct os_super *)os_err_ptr(rc);
    super = super_on(real_bdev(bdev));
    if (!super)
        compat_bdev_thaw(real_bdev(bdev));
    return super;
}

int os_thaw_bdev(struct os_bdev *bdev, struct os_super *super) {
    return super ? compat_bdev_thaw(real_bdev(bdev)) : 0;
}
