// os/sim/embed/os_embedded.h: embedded types of the simulated kernel
// SPDX-License-Identifier: GPL-2.0-only
//
// Nobody but os/sim reads the fields. All-zero bytes mean "not initialised": every call checks the
// magic number, so a lock used before its init function ran is found.
#ifndef TRAK_OS_SIM_EMBEDDED_H
#define TRAK_OS_SIM_EMBEDDED_H

#include <stdint.h>

struct os_task;
struct os_lock_class;
struct os_wait_entry;

/* The driver's mutable globals stand in one section, whose first image each boot restores. */
#define OS_MODULE_STATE __attribute__((section("os_module_state")))

/* Tasks that wait, first come first. */
struct os_sim_wait_list {
    struct os_task *first;
    struct os_task *last;
};

struct os_spinlock {
    uint32_t magic;
    uint32_t irq_saved; /* the holder took it with interrupts saved */
    const struct os_lock_class *cls;
    struct os_task *owner;
    unsigned long flags; /* what the holder's lock call returned */
    struct os_sim_wait_list waiters;
};

struct os_semaphore {
    uint32_t magic;
    int32_t count;
    struct os_sim_wait_list waiters;
};

struct os_completion {
    uint32_t magic;
    uint32_t done;
    struct os_sim_wait_list waiters;
};

struct os_wait_queue_head {
    uint32_t magic;
    uint32_t unused;
    struct os_wait_entry *first;
    struct os_wait_entry *last;
    uint64_t woken_empty_at; /* step of the last wake-up that found nobody, 0: none */
};

struct os_wait_entry {
    uint32_t magic;
    uint32_t mode;
    struct os_task *task;
    struct os_wait_queue_head *head; /* null: not queued */
    struct os_wait_entry *prev;
    struct os_wait_entry *next;
    uint64_t queued_at; /* step */
};

#endif
