// os/lock.h: spin locks, semaphores, completions, and the order in which locks are taken
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LOCK_H
#define TRAK_OS_LOCK_H

#include <os_embedded.h> /* complete types: os_spinlock, os_semaphore, os_completion, ... */

#include "os/base.h"

OS_BEGIN

/* What a lock is, for the platforms that check order: a task that holds a lock may take only
 * locks of a higher rank (the same instance again, where the lock nests, is allowed). One class
 * per kind of lock, constant for the life of the program. */
struct os_lock_class {
    const char *name;
    uint32_t rank;
};

enum os_lock_mode { OS_LOCK_SHARED = 0, OS_LOCK_EXCLUSIVE = 1 };

/* Sleeping locks that the driver builds itself report here: before they wait (acquire) and after
 * they let go (release). A platform without a checker does nothing. Context: sleep / any. */
void os_lock_acquire(const struct os_lock_class *cls, const void *lock, enum os_lock_mode mode);
void os_lock_release(const struct os_lock_class *cls, const void *lock);

/* Spin locks. Not recursive. Nothing that sleeps is called while one is held.
 * os_spin_lock: context atomic. The irqsave pair: context any; use it for locks that interrupt
 * context takes too. */
void os_spin_lock_init(struct os_spinlock *lock, const struct os_lock_class *cls);
void os_spin_lock(struct os_spinlock *lock);
void os_spin_unlock(struct os_spinlock *lock);
unsigned long os_spin_lock_irqsave(struct os_spinlock *lock) OS_MUST_CHECK;
void os_spin_unlock_irqrestore(struct os_spinlock *lock, unsigned long flags);

/* Counting semaphore. os_down: context sleep, not interruptible. os_up: context any. */
void os_sema_init(struct os_semaphore *sema, int count);
void os_down(struct os_semaphore *sema);
void os_up(struct os_semaphore *sema);

/* Completion: each os_complete lets one waiter through. os_wait_for_completion: context sleep.
 * Once the waiter has returned it may free the completion. os_complete: context any. */
void os_init_completion(struct os_completion *completion);
void os_complete(struct os_completion *completion);
void os_wait_for_completion(struct os_completion *completion);

OS_END

#endif
