// os/linux/compat/2.6.32/freeze.c: the file system on a block device, in kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/buffer_head.h>
#include <linux/err.h>
#include <linux/fs.h>

#include "os/linux/block.h"

struct os_super *os_get_super(struct os_bdev *bdev) {
    return (struct os_super *)get_super(real_bdev(bdev));
}

void os_drop_super(struct os_super *super) {
    drop_super((struct super_block *)super);
}

/* The kernel counts a freeze of a device without a file system too, and would let nobody mount it. The
 * reference is one beside the freeze's own: the device is not closed, and freed, within the thaw. */
struct os_super *os_freeze_bdev(struct os_bdev *bdev) {
    struct super_block *super = freeze_bdev(real_bdev(bdev));

    if (!super)
        thaw_bdev(real_bdev(bdev), NULL);
    else if (!IS_ERR(super))
        atomic_inc(&super->s_active);
    return (struct os_super *)super;
}

int os_thaw_bdev(struct os_bdev *bdev, struct os_super *super) {
    int rc;

    if (!super)
        return 0;
    rc = thaw_bdev(real_bdev(bdev), (struct super_block *)super);
    trak_let_super_go((struct super_block *)super);
    return rc;
}
