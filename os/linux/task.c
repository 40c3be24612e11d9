// os/linux/task.c: tasks, threads, the processor
// SPDX-License-Identifier: GPL-2.0-only
#include "os/task.h"

#include <linux/err.h>
#include <linux/kthread.h>
#include <linux/module.h>
#include <linux/pid.h>
#include <linux/preempt.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/string.h>

#include <compat_task.h>

#include "os/linux/embedded.h"

OS_LINUX_EMBEDS(os_completion, struct completion)

_Static_assert((int)OS_TASK_COMM_LEN == (int)TASK_COMM_LEN, "names of tasks");

struct os_task *os_current(void) {
    return (struct os_task *)current;
}

int os_current_pid(void) {
    return task_pid_nr(current);
}

void os_current_comm(char name[OS_TASK_COMM_LEN]) {
    snprintf(name, OS_TASK_COMM_LEN, "%s", current->comm);
}

bool os_in_interrupt(void) {
    return in_interrupt();
}

void os_schedule(void) {
    schedule();
}

void os_yield(void) {
    yield();
}

void os_cond_resched(void) {
    cond_resched();
}

struct start {
    int (*fn)(void *arg);
    void *arg;
};

static int run_plugged(void *arg) {
    const struct start start = *(struct start *)arg;
    compat_plug plug;
    int rc;

    kfree(arg);
    compat_start_plug(&plug);
    rc = start.fn(start.arg);
    compat_finish_plug();
    return rc;
}

// What a thread shares with its maker (clone_flags) is settled by the kernel for its own threads.
int os_kernel_thread(int (*fn)(void *arg), void *arg, unsigned long clone_flags, const char *name) {
    struct start *start = kmalloc(sizeof(*start), GFP_KERNEL);
    struct task_struct *task;
    int pid;

    if (!start)
        return -ENOMEM;
    *start = (struct start){fn, arg};
    task = kthread_create(run_plugged, start, "%s", name);
    if (IS_ERR(task)) {
        kfree(start);
        return PTR_ERR(task);
    }
    pid = task_pid_nr(task); /* it may be gone once it runs */
    wake_up_process(task);
    return pid;
}

// A thread made by kthread_create has no user context and takes no signals. The module's threads are on
// the way of writes: their own allocations and file writes must not wait until such a write is done.
void os_daemonize(const char *name) {
    char comm[TASK_COMM_LEN] = "";

    snprintf(comm, sizeof(comm), "%s", name);
    task_lock(current);
    memcpy(current->comm, comm, sizeof(comm));
    task_unlock(current);
    compat_thread_writes();
}

// There is always a completion. Asking for it leaves the function a way back, as its callers on other
// platforms need: the kernel's check of objects wants no code behind a call that can't return.
void os_complete_and_exit(struct os_completion *completion, long code) {
    if (!completion)
        return;
    compat_finish_plug();
    compat_complete_and_exit(real_os_completion(completion), code);
}

void os_module_get(void) {
    __module_get(THIS_MODULE);
}

void os_module_put(void) {
    module_put(THIS_MODULE);
}

const char *os_utsrelease(void) {
    return UTS_RELEASE;
}
