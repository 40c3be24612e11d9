// tests/vm/contract/newer/compat_contract.h: what the contract suite asks of newer kernels
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_VM_COMPAT_CONTRACT_H
#define TRAK_TESTS_VM_COMPAT_CONTRACT_H

#include <linux/bio.h>
#include <linux/fs.h>
#include <linux/interrupt.h>
#include <linux/minmax.h>
#include <linux/mm.h>
#include <linux/mman.h>
#include <linux/printk.h>
#include <linux/sched/signal.h>
#include <linux/wait.h>

/* The tasks of a wait queue. */
#define waiters_of(queue) (&(queue)->head)

/* The operation `name` of a file system on a block device, that fills its super block by fill_fn. */
#define CONTRACT_MOUNT(name, fill_fn)                                                              \
    static struct dentry *name(struct file_system_type *type, int flags, const char *device,       \
                               void *data) {                                                       \
        return mount_bdev(type, flags, device, data, fill_fn);                                     \
    }
#define contract_mount mount
#define contract_is_frozen(super) ((super)->s_writers.frozen == SB_FREEZE_COMPLETE)

#endif
