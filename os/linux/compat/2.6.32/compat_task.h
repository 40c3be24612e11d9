// os/linux/compat/2.6.32/compat_task.h: tasks and wait queues of kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_TASK_H
#define TRAK_COMPAT_TASK_H

#include <linux/hardirq.h>
#include <linux/kernel.h>
#include <linux/kthread.h>
#include <linux/module.h>
#include <linux/sched.h>
#include <linux/utsrelease.h>
#include <linux/wait.h>

typedef wait_queue_t compat_wait_entry;

/* Asleep, but neither load nor hung. No signal reaches a thread that kthread_create made. */
#define COMPAT_TASK_IDLE TASK_INTERRUPTIBLE

/* The calling thread stands in the way of writes, to its end: what it writes is not throttled with the
 * rest. This kernel has no mark for a thread whose allocations start no I/O: the files that the driver
 * opens are marked so (compat_file.h). */
static inline void compat_thread_writes(void) {
    current->flags |= PF_LESS_THROTTLE;
}

#define compat_complete_and_exit(completion, code) complete_and_exit(completion, code)
/* The same for a reference on the module. */
#define compat_module_put_and_exit(code) module_put_and_exit(code)

/* The queues of this kernel hold requests back themselves. */
typedef struct {
} compat_plug;

static inline void compat_start_plug(compat_plug *plug) {}

static inline void compat_finish_plug(void) {}

#endif
