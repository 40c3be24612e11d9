// os/user/embed/os_embedded.h: complete types of the user-space platform
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_USER_EMBED_OS_EMBEDDED_H
#define TRAK_OS_USER_EMBED_OS_EMBEDDED_H

#include <stdint.h>

#define OS_MODULE_STATE

struct os_task;
struct os_user_waiter;

/* 0 free, 1 held, 2 held and somebody may sleep for it. */
struct os_spinlock {
    uint32_t state;
};

/* Passes are counted, or handed to whoever waits longest. */
struct os_user_gate {
    struct os_spinlock lock;
    uint32_t passes;
    struct os_user_waiter *first;
    struct os_user_waiter *last;
};

struct os_semaphore {
    struct os_user_gate gate;
};

struct os_completion {
    struct os_user_gate gate;
};

struct os_wait_entry {
    struct os_task *task;
    struct os_wait_entry *prev;
    struct os_wait_entry *next;
    uint32_t queued;
};

struct os_wait_queue_head {
    struct os_spinlock lock;
    struct os_wait_entry *first;
    struct os_wait_entry *last;
};

#endif
