// os/linux/wait.c: wait queues
// SPDX-License-Identifier: GPL-2.0-only
#include "os/wait.h"

#include <linux/sched.h>
#include <linux/wait.h>

#include <compat_task.h>

#include "os/linux/embedded.h"

OS_LINUX_EMBEDS(os_wait_queue_head, wait_queue_head_t)
OS_LINUX_EMBEDS(os_wait_entry, compat_wait_entry)

// A thread of the module may wait for work for days. That is no hang and no load, as a process that
// waits for a lock would be.
static int sleeping_state(enum os_wait_mode mode) {
    if (mode == OS_WAIT_INTERRUPTIBLE)
        return TASK_INTERRUPTIBLE;
    return current->flags & PF_KTHREAD ? COMPAT_TASK_IDLE : TASK_UNINTERRUPTIBLE;
}

void os_init_waitqueue_head(struct os_wait_queue_head *head) {
    init_waitqueue_head(real_os_wait_queue_head(head));
}

void os_init_wait_entry(struct os_wait_entry *entry) {
    init_wait(real_os_wait_entry(entry));
}

void os_prepare_to_wait(struct os_wait_queue_head *head, struct os_wait_entry *entry,
                        enum os_wait_mode mode) {
    prepare_to_wait(real_os_wait_queue_head(head), real_os_wait_entry(entry), sleeping_state(mode));
}

void os_finish_wait(struct os_wait_queue_head *head, struct os_wait_entry *entry) {
    finish_wait(real_os_wait_queue_head(head), real_os_wait_entry(entry));
}

void os_wake_up(struct os_wait_queue_head *head) {
    wake_up(real_os_wait_queue_head(head));
}

bool os_signal_pending(void) {
    return signal_pending(current);
}
