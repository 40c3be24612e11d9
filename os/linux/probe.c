// os/linux/probe.c: compiled, never linked: its text tells the build what size the kernel's types have
// SPDX-License-Identifier: GPL-2.0-only
//
// Sizes depend on the kernel's configuration (lock checking makes them larger), and the driver's C++
// can't include the kernel's headers. Each line becomes a #define of os_probed.h.
#include <linux/completion.h>
#include <linux/kbuild.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>
#include <linux/wait.h>

#include <compat_task.h>

#define PROBE(name, type)                                                                          \
    DEFINE(OS_SIZE_OF_##name, sizeof(type));                                                       \
    DEFINE(OS_ALIGN_OF_##name, __alignof__(type))

void trak_probe(void);
void trak_probe(void) {
    PROBE(SPINLOCK, spinlock_t);
    PROBE(SEMAPHORE, struct semaphore);
    PROBE(COMPLETION, struct completion);
    PROBE(WAIT_QUEUE_HEAD, wait_queue_head_t);
    PROBE(WAIT_ENTRY, compat_wait_entry);
}
