// driver/block/locks.h: the reader/writer lock and the recursive mutex of the driver
// SPDX-License-Identifier: GPL-2.0-only
//
// zurwlock   many readers or one writer, who may nest. Not fair: readers enter whenever no writer
//            holds it. A task that writes must not read (it would sleep for ever).
// zumutex    one holder, who may nest.
// A release by a task that does not hold the lock is logged and ignored. Waits are not interruptible.
#ifndef TRAK_BLOCK_LOCKS_H
#define TRAK_BLOCK_LOCKS_H

#include <cstdint>

#include "driver/utils/annotations.h"
#include "os/lock.h"
#include "os/task.h"
#include "os/wait.h"

struct TRAK_CAPABILITY("zurwlock") zurwlock {
    os_spinlock spin;  // guards the fields below
    os_wait_queue_head wait;
    os_task *owner;            // the writer, or null
    std::int32_t count;        // > 0 readers; < 0 the writer's depth; 0 free
    const os_lock_class *cls;  // constant after init
};

struct TRAK_CAPABILITY("zumutex") zumutex {
    os_semaphore sema;
    os_task *owner;  // written by the holder; others may read it at any time
    std::uint32_t depth;
    const os_lock_class *cls;  // constant after init
};

void zurwlock_init(zurwlock *lock, const os_lock_class *cls);
void zuread_lock(zurwlock *lock) TRAK_ACQUIRE_SHARED(lock);
// As zuread_lock, but gives up (false, nothing held) when it would have to wait and give_up(arg)
// holds, which is asked under `spin` and must neither sleep nor lock. Whoever makes it hold pokes the
// lock afterwards, so that those who wait ask again. For a reader whom the writer waits for.
using zurwlock_give_up_fn = bool (*)(const void *arg);
[[nodiscard]] bool zuread_lock_unless(zurwlock *lock, zurwlock_give_up_fn give_up, const void *arg)
    TRAK_TRY_ACQUIRE_SHARED(true, lock);
void zurwlock_poke(zurwlock *lock);
void zuread_unlock(zurwlock *lock) TRAK_RELEASE_SHARED(lock);
void zuwrite_lock(zurwlock *lock) TRAK_ACQUIRE(lock);
void zuwrite_unlock(zurwlock *lock) TRAK_RELEASE(lock);
// Takes the lock for writing only when it is free (or the caller writes already); never sleeps.
[[nodiscard]] bool zuwrite_trylock(zurwlock *lock) TRAK_TRY_ACQUIRE(true, lock);

void zumutex_init(zumutex *mutex, const os_lock_class *cls);
void zumutex_lock(zumutex *mutex) TRAK_ACQUIRE(mutex);
void zumutex_unlock(zumutex *mutex) TRAK_RELEASE(mutex);

class TRAK_SCOPED_CAPABILITY zuread_guard {
  public:
    explicit zuread_guard(zurwlock *lock) TRAK_ACQUIRE_SHARED(lock) : lock_(lock) {
        zuread_lock(lock);
    }
    ~zuread_guard() TRAK_RELEASE() { zuread_unlock(lock_); }
    zuread_guard(const zuread_guard &) = delete;
    zuread_guard &operator=(const zuread_guard &) = delete;

  private:
    zurwlock *lock_;
};

class TRAK_SCOPED_CAPABILITY zuwrite_guard {
  public:
    explicit zuwrite_guard(zurwlock *lock) TRAK_ACQUIRE(lock) : lock_(lock) { zuwrite_lock(lock); }
    ~zuwrite_guard() TRAK_RELEASE() { zuwrite_unlock(lock_); }
    zuwrite_guard(const zuwrite_guard &) = delete;
    zuwrite_guard &operator=(const zuwrite_guard &) = delete;

  private:
    zurwlock *lock_;
};

class TRAK_SCOPED_CAPABILITY zumutex_guard {
  public:
    explicit zumutex_guard(zumutex *mutex) TRAK_ACQUIRE(mutex) : mutex_(mutex) {
        zumutex_lock(mutex);
    }
    ~zumutex_guard() TRAK_RELEASE() { zumutex_unlock(mutex_); }
    zumutex_guard(const zumutex_guard &) = delete;
    zumutex_guard &operator=(const zumutex_guard &) = delete;

  private:
    zumutex *mutex_;
};

// Spin locks, for scopes. The irq one is for locks that interrupt context takes too.
class trak_spin_guard {
  public:
    explicit trak_spin_guard(os_spinlock *lock) : lock_(lock) { os_spin_lock(lock); }
    ~trak_spin_guard() { os_spin_unlock(lock_); }
    trak_spin_guard(const trak_spin_guard &) = delete;
    trak_spin_guard &operator=(const trak_spin_guard &) = delete;

  private:
    os_spinlock *lock_;
};

class trak_spin_irq_guard {
  public:
    explicit trak_spin_irq_guard(os_spinlock *lock)
        : lock_(lock), flags_(os_spin_lock_irqsave(lock)) {}
    ~trak_spin_irq_guard() { os_spin_unlock_irqrestore(lock_, flags_); }
    trak_spin_irq_guard(const trak_spin_irq_guard &) = delete;
    trak_spin_irq_guard &operator=(const trak_spin_irq_guard &) = delete;

  private:
    os_spinlock *lock_;
    unsigned long flags_;
};

#endif
