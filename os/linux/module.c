// os/linux/module.c: the module as the kernel loads and unloads it
// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel refuses to unload a module that is referred to; each open of a node and of the control
// device holds a reference. The exit function itself can't refuse: an unload step that fails (a disk
// that is still being let go, say) is tried again until it succeeds, for code and data of the module
// are gone the moment that the function returns.
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/sched.h>

#include "os/base.h"
#include "os/linux/block.h"

/* The driver's entries and parameters (driver/module/module.h and params.h). */
int trak_init(void);
int trak_cleanup(void);
extern int32_t trak_chr_major;
extern int32_t trak_debug;
extern int32_t trak_blk_major;
extern int32_t trak_max_blk_minor;

_Static_assert(PAGE_SIZE == OS_PAGE_SIZE, "the driver's pages are the kernel's");

static int __init trak_module_init(void) {
    int rc = trak_bio_init();

    if (rc != 0)
        return rc;
    rc = trak_stat_init();
    if (rc != 0)
        goto no_stat;
    rc = trak_init();
    if (rc == 0)
        return 0;
    trak_disk_exit();
    trak_stat_exit();
no_stat:
    trak_bio_exit();
    return rc;
}

static void __exit trak_module_exit(void) {
    while (trak_cleanup() != 0)
        schedule_timeout_uninterruptible(HZ);
    trak_disk_exit();
    trak_stat_exit();
    trak_bio_exit();
}

module_init(trak_module_init);
module_exit(trak_module_exit);

module_param(trak_chr_major, int, 0444);
MODULE_PARM_DESC(trak_chr_major, "major number of the control device (0: any free one)");
module_param(trak_debug, int, 0444);
MODULE_PARM_DESC(trak_debug, "messages: 0 errors only, 1 to 4 ever more");
module_param(trak_blk_major, int, 0444);
MODULE_PARM_DESC(trak_blk_major, "major number of the block devices");
module_param(trak_max_blk_minor, int, 0444);
MODULE_PARM_DESC(trak_max_blk_minor, "highest minor number of a node");

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Block Filtering and Snap Driver");
