// tests/vm/contract/hold.c: a node that is open while its module is unloaded all the same
// SPDX-License-Identifier: GPL-2.0-only
//
// An open node holds references to its module, so that the kernel refuses to unload that. Here they are
// given up for a while, and the module's exit finds a node in use.
#include <linux/blkdev.h>
#include <linux/module.h>

#include "os/linux/block.h"
#include "tests/vm/contract/contract.h"

static struct os_bdev *held;
static struct module *owner;
static int given_up;

int contract_hold(os_dev_t dev) {
    held = os_open_by_devnum(dev, OS_FMODE_READ);
    if (os_is_err(held))
        return os_ptr_err(held);
    owner = real_bdev(held)->bd_disk->fops->owner;
    for (; module_refcount(owner) > 0; given_up++)
        module_put(owner);
    return 0;
}

void contract_let_go(void) {
    for (; given_up > 0; given_up--)
        __module_get(owner);
    os_blkdev_put(held, OS_FMODE_READ);
}
