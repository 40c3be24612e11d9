// os/linux/super.c: letting go of a file system that was unmounted while it was frozen
// SPDX-License-Identifier: GPL-2.0-only
//
// A freeze keeps the file system active. When somebody unmounts it meanwhile, it is shut down by whoever
// lets go of it last, and its device is closed there, under the lock under which the kernel opens it. Who
// thaws may have locks that an open waits for with that lock held: a start of a snapshot has.
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/kthread.h>
#include <linux/module.h>

#include "os/linux/block.h"

#include <compat_task.h>

/* The module stays until the thread is out of it. */
static int shut_down(void *super) {
    deactivate_super(super);
    compat_module_put_and_exit(0);
    return 0;
}

void trak_let_super_go(struct super_block *super) {
    struct task_struct *task;

    if (atomic_add_unless(&super->s_active, -1, 1))
        return;
    __module_get(THIS_MODULE);
    task = kthread_run(shut_down, super, "trak_umount");
    if (!IS_ERR(task))
        return;
    module_put(THIS_MODULE);
    deactivate_super(super); /* no memory for a thread: better so than never */
}
