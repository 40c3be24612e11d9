// driver/block/locks.cpp: the reader/writer lock and the recursive mutex of the driver
// SPDX-License-Identifier: GPL-2.0-only
//
// zurwlock: `count` tells the state (above 0 readers, 0 free, below 0 the writer's depth) and changes
// only under `spin`. Whoever can't enter queues itself before it lets go of `spin`, and whoever
// makes the count 0 wakes everybody under `spin`, so no wake-up is lost; each waiter tests again,
// and who gets there first has the lock. Readers never wait for a waiting writer.
//
// zumutex: the semaphore is the lock. `owner` and `depth` are the holder's; other tasks read
// `owner` at any time and only to find that it is not theirs, which a stale value tells as well.
//
// The analysis of lock contracts can't see through counters, hence the attribute on each function.
#include "driver/block/locks.h"

#include "driver/block/lock_ranks.h"
#include "driver/module/log.h"
#include "driver/utils/atomic.h"

namespace {

// What a task waits for: that it may enter as a reader or as the writer, or (where give_up is set)
// that give_up holds.
struct wish {
    enum os_lock_mode mode;
    zurwlock_give_up_fn give_up;
    const void *arg;
};

bool may_enter(const zurwlock *lock, const wish &wish) {
    return wish.mode == OS_LOCK_SHARED ? lock->count >= 0 : lock->count == 0;
}

bool wait_ends(const zurwlock *lock, const wish &wish) {
    return may_enter(lock, wish) || (wish.give_up != nullptr && wish.give_up(wish.arg));
}

// Sleeps until the wish holds. `spin` is held on entry and on exit, not in between.
void wait_until(zurwlock *lock, const wish &wish) {
    if (wait_ends(lock, wish))
        return;
    os_wait_entry entry;
    os_init_wait_entry(&entry);
    os_prepare_to_wait(&lock->wait, &entry, OS_WAIT_UNINTERRUPTIBLE);
    while (!wait_ends(lock, wish)) {
        os_spin_unlock(&lock->spin);
        os_schedule();
        os_spin_lock(&lock->spin);
        os_prepare_to_wait(&lock->wait, &entry, OS_WAIT_UNINTERRUPTIBLE);
    }
    os_finish_wait(&lock->wait, &entry);
}

bool writes_already(const zurwlock *lock) {
    return lock->count < 0 && lock->owner == os_current();
}

bool holds_mutex(const zumutex *mutex) {
    return trak_read_once(mutex->owner) == os_current() && trak_read_once(mutex->depth) != 0;
}

}  // namespace

void zurwlock_init(zurwlock *lock, const os_lock_class *cls) {
    os_spin_lock_init(&lock->spin, &trak_rank_zurwlock_spin);
    os_init_waitqueue_head(&lock->wait);
    lock->owner = nullptr;
    lock->count = 0;
    lock->cls = cls;
}

TRAK_NO_THREAD_SAFETY_ANALYSIS void zuread_lock(zurwlock *lock) {
    os_lock_acquire(lock->cls, lock, OS_LOCK_SHARED);
    os_spin_lock(&lock->spin);
    wait_until(lock, {OS_LOCK_SHARED, nullptr, nullptr});
    lock->count += 1;
    os_spin_unlock(&lock->spin);
}

TRAK_NO_THREAD_SAFETY_ANALYSIS bool zuread_lock_unless(zurwlock *lock, zurwlock_give_up_fn give_up,
                                                       const void *arg) {
    const wish wish{OS_LOCK_SHARED, give_up, arg};
    os_lock_acquire(lock->cls, lock, OS_LOCK_SHARED);
    os_spin_lock(&lock->spin);
    wait_until(lock, wish);
    const bool entered = may_enter(lock, wish);
    if (entered)
        lock->count += 1;
    os_spin_unlock(&lock->spin);
    if (!entered)
        os_lock_release(lock->cls, lock);
    return entered;
}

void zurwlock_poke(zurwlock *lock) {
    os_spin_lock(&lock->spin);
    os_wake_up(&lock->wait);
    os_spin_unlock(&lock->spin);
}

TRAK_NO_THREAD_SAFETY_ANALYSIS void zuread_unlock(zurwlock *lock) {
    os_spin_lock(&lock->spin);
    const bool held = lock->count >= 1;
    if (held) {
        lock->count -= 1;
        if (lock->count == 0)
            os_wake_up(&lock->wait);
    }
    os_spin_unlock(&lock->spin);
    if (held)
        os_lock_release(lock->cls, lock);
    else
        trak_log(TRAK_LOG_ERROR, "zuread_unlock(): Can't release RO lock: not locked.");
}

TRAK_NO_THREAD_SAFETY_ANALYSIS void zuwrite_lock(zurwlock *lock) {
    os_lock_acquire(lock->cls, lock, OS_LOCK_EXCLUSIVE);
    os_spin_lock(&lock->spin);
    if (!writes_already(lock)) {
        wait_until(lock, {OS_LOCK_EXCLUSIVE, nullptr, nullptr});
        lock->owner = os_current();
    }
    lock->count -= 1;
    os_spin_unlock(&lock->spin);
}

TRAK_NO_THREAD_SAFETY_ANALYSIS bool zuwrite_trylock(zurwlock *lock) {
    os_spin_lock(&lock->spin);
    const bool entered = writes_already(lock) || lock->count == 0;
    if (entered) {
        lock->owner = os_current();
        lock->count -= 1;
    }
    os_spin_unlock(&lock->spin);
    if (entered)
        os_lock_acquire(lock->cls, lock, OS_LOCK_EXCLUSIVE);
    return entered;
}

TRAK_NO_THREAD_SAFETY_ANALYSIS void zuwrite_unlock(zurwlock *lock) {
    os_spin_lock(&lock->spin);
    const bool held = writes_already(lock);
    if (held) {
        lock->count += 1;
        if (lock->count == 0) {
            lock->owner = nullptr;
            os_wake_up(&lock->wait);
        }
    }
    os_spin_unlock(&lock->spin);
    if (held)
        os_lock_release(lock->cls, lock);
    else
        trak_log(TRAK_LOG_ERROR, "zuwrite_unlock(): Can't release RW lock: not owner.");
}

void zumutex_init(zumutex *mutex, const os_lock_class *cls) {
    os_sema_init(&mutex->sema, 1);
    mutex->owner = nullptr;
    mutex->depth = 0;
    mutex->cls = cls;
}

TRAK_NO_THREAD_SAFETY_ANALYSIS void zumutex_lock(zumutex *mutex) {
    os_lock_acquire(mutex->cls, mutex, OS_LOCK_EXCLUSIVE);
    if (!holds_mutex(mutex)) {
        os_down(&mutex->sema);
        trak_write_once(mutex->depth, 0u);
        trak_write_once(mutex->owner, os_current());
    }
    trak_write_once(mutex->depth, mutex->depth + 1);
}

TRAK_NO_THREAD_SAFETY_ANALYSIS void zumutex_unlock(zumutex *mutex) {
    if (!holds_mutex(mutex)) {
        trak_log(TRAK_LOG_ERROR, "zumutex_unlock(): Can't unlock mutex: not owner.");
        return;
    }
    const os_lock_class *cls = mutex->cls;
    trak_write_once(mutex->depth, mutex->depth - 1);
    if (mutex->depth == 0) {
        trak_write_once(mutex->owner, static_cast<os_task *>(nullptr));
        os_up(&mutex->sema);
    }
    os_lock_release(cls, mutex);
}
