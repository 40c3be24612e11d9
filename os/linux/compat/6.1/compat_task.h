// os/linux/compat/6.1/compat_task.h: tasks and wait queues of kernel 6.1
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_TASK_H
#define TRAK_COMPAT_TASK_H

#include <generated/utsrelease.h>
#include <linux/blkdev.h>
#include <linux/kthread.h>
#include <linux/module.h>
#include <linux/sched.h>
#include <linux/sched/mm.h>
#include <linux/sched/signal.h>
#include <linux/sched/task.h>
#include <linux/wait.h>

typedef wait_queue_entry_t compat_wait_entry;

/* Asleep, but neither load nor hung. */
#define COMPAT_TASK_IDLE TASK_IDLE

/* The calling thread stands in the way of writes, to its end: its allocations start no I/O, and what it
 * writes is not throttled with the rest. */
static inline void compat_thread_writes(void) {
    current->flags |= PF_LOCAL_THROTTLE;
    memalloc_noio_save();
}

#define compat_complete_and_exit(completion, code) kthread_complete_and_exit(completion, code)
/* The same for a reference on the module. */
#define compat_module_put_and_exit(code) module_put_and_kthread_exit(code)

/* What a thread of the module submits in a row joins in its plug, until it sleeps or unplugs the queue. */
typedef struct blk_plug compat_plug;

#define compat_start_plug(plug) blk_start_plug(plug)

/* That of the calling thread, where it has one. */
static inline void compat_finish_plug(void) {
    if (current->plug)
        blk_finish_plug(current->plug);
}

#endif
