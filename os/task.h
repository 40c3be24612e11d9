// os/task.h: tasks, threads, the processor
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_TASK_H
#define TRAK_OS_TASK_H

#include "os/base.h"
#include "os/lock.h"

OS_BEGIN

struct
    os_task; /* handle: a task's identity, comparable, never freed while the task can hold a lock */

enum { OS_TASK_COMM_LEN = 16 };
enum { OS_CLONE_FS = 0x200, OS_CLONE_FILES = 0x400, OS_CLONE_SIGHAND = 0x800 };

struct os_task *os_current(void);                  /* context: any */
int os_current_pid(void);                          /* context: any */
void os_current_comm(char name[OS_TASK_COMM_LEN]); /* NUL-terminated; context: any */
bool os_in_interrupt(void);                        /* hard, soft or NMI; context: any */

/* Sleeps when the task is marked as sleeping (os_prepare_to_wait), else lets others run.
 * Context: sleep. */
void os_schedule(void);
void os_yield(void);        /* context: sleep */
void os_cond_resched(void); /* context: sleep */

/* Starts fn(arg) as a thread of the kernel. Returns its process id, or a negative errno. The name is the
 * one that the thread gives itself with os_daemonize: some kernels show only what they were told here.
 * Context: sleep. */
int os_kernel_thread(int (*fn)(void *arg), void *arg, unsigned long clone_flags,
                     const char *name) OS_MUST_CHECK;
/* Called by the thread itself first: its name, no user context, no signals. Context: sleep. */
void os_daemonize(const char *name);
/* The last call of a thread function, whose return must follow at once: completes and ends the
 * thread, so that no code of the module runs in it once the waiter goes on (a kernel does not
 * return from it; elsewhere the platform joins the thread before it lets the module go). */
void os_complete_and_exit(struct os_completion *completion, long code);

/* A reference on the module, held while one of its devices is open. Context: any. */
void os_module_get(void);
void os_module_put(void);

/* Release string of the kernel that this was built for; constant. */
const char *os_utsrelease(void);

OS_END

#endif
