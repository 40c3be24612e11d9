// os/linux/freeze.c: the file system on a block device: whether there is one, and stopping it
// SPDX-License-Identifier: GPL-2.0-only
//
// The driver asks a super block nothing. What it gets in its place where it only wants to know of it is the
// device; from a freeze on it is the super block, kept active (super.c).
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
    struct super_block *super;

    if (rc != 0)
        return (struct os_super *)os_err_ptr(rc);
    super = compat_bdev_frozen(real_bdev(bdev));
    if (!super)
        compat_bdev_thaw(real_bdev(bdev));
    return (struct os_super *)super;
}

int os_thaw_bdev(struct os_bdev *bdev, struct os_super *super) {
    int rc;

    if (!super)
        return 0;
    rc = compat_bdev_thaw(real_bdev(bdev));
    trak_let_super_go((struct super_block *)super);
    return rc;
}
