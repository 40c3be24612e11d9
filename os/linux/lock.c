// os/linux/lock.c: spin locks, semaphores, completions
// SPDX-License-Identifier: GPL-2.0-only
#include "os/lock.h"

#include <linux/completion.h>
#include <linux/lockdep.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>

#include "os/linux/embedded.h"

OS_LINUX_EMBEDS(os_spinlock, spinlock_t)
OS_LINUX_EMBEDS(os_semaphore, struct semaphore)
OS_LINUX_EMBEDS(os_completion, struct completion)

// The kernel has no checker for locks that the driver builds itself.
void os_lock_acquire(const struct os_lock_class *cls, const void *lock, enum os_lock_mode mode) {}

void os_lock_release(const struct os_lock_class *cls, const void *lock) {}

void os_spin_lock_init(struct os_spinlock *lock, const struct os_lock_class *cls) {
    spin_lock_init(real_os_spinlock(lock));
    /* The kernel's checker, where it is switched on, tells classes apart by an address. */
    lockdep_set_class_and_name(real_os_spinlock(lock), (struct lock_class_key *)cls, cls->name);
}

void os_spin_lock(struct os_spinlock *lock) {
    spin_lock(real_os_spinlock(lock));
}

void os_spin_unlock(struct os_spinlock *lock) {
    spin_unlock(real_os_spinlock(lock));
}

unsigned long os_spin_lock_irqsave(struct os_spinlock *lock) {
    unsigned long flags;

    spin_lock_irqsave(real_os_spinlock(lock), flags);
    return flags;
}

void os_spin_unlock_irqrestore(struct os_spinlock *lock, unsigned long flags) {
    spin_unlock_irqrestore(real_os_spinlock(lock), flags);
}

void os_sema_init(struct os_semaphore *sema, int count) {
    sema_init(real_os_semaphore(sema), count);
}

void os_down(struct os_semaphore *sema) {
    down(real_os_semaphore(sema));
}

void os_up(struct os_semaphore *sema) {
    up(real_os_semaphore(sema));
}

void os_init_completion(struct os_completion *completion) {
    init_completion(real_os_completion(completion));
}

void os_complete(struct os_completion *completion) {
    complete(real_os_completion(completion));
}

void os_wait_for_completion(struct os_completion *completion) {
    wait_for_completion(real_os_completion(completion));
}
