// os/user/lock.cpp: spin locks, semaphores and completions on futexes
// SPDX-License-Identifier: GPL-2.0-only
//
// A "spin lock" spins for a bounded time and then sleeps: with few processors the holder may be the
// thread that the spinning keeps from running.
//
// Semaphores and completions are one thing, a gate: a count of passes and a queue of waiters, both
// under the gate's spin lock. Whoever opens the gate takes the waiter off the queue, lets the lock go,
// and only then tells the waiter, through a word on the waiter's stack: from that store on neither the
// gate nor the waiter is touched, so the waiter may free both at once.
#include "os/lock.h"

#include <atomic>

#include "os/user/sync.h"
#include "os/user/task.h"

struct os_user_waiter {
    std::uint32_t passed = 0;
    os_user_waiter *next = nullptr;
};

namespace {

constexpr int kSpins = 100;

inline void relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

void lock_slowly(std::atomic_ref<std::uint32_t> state, std::uint32_t *word) {
    for (int i = 0; i < kSpins; i++) {
        std::uint32_t is_free = 0;
        if (state.load(std::memory_order_relaxed) == 0 &&
            state.compare_exchange_weak(is_free, 1, std::memory_order_acquire,
                                        std::memory_order_relaxed))
            return;
        relax();
    }
    while (state.exchange(2, std::memory_order_acquire) != 0)
        user::futex_wait(word, 2);
}

void spin_lock(os_spinlock *lock) {
    std::atomic_ref<std::uint32_t> state(lock->state);
    std::uint32_t is_free = 0;
    if (!state.compare_exchange_strong(is_free, 1, std::memory_order_acquire,
                                       std::memory_order_relaxed))
        lock_slowly(state, &lock->state);
}

void spin_unlock(os_spinlock *lock) {
    std::uint32_t *word = &lock->state;
    if (std::atomic_ref<std::uint32_t>(*word).exchange(0, std::memory_order_release) == 2)
        user::futex_wake(word, 1);
}

void gate_init(os_user_gate *gate, std::uint32_t passes) {
    *gate = {};
    gate->passes = passes;
}

void gate_open(os_user_gate *gate) {
    spin_lock(&gate->lock);
    os_user_waiter *waiter = gate->first;
    if (waiter) {
        gate->first = waiter->next;
        if (!gate->first)
            gate->last = nullptr;
    } else {
        gate->passes++;
    }
    spin_unlock(&gate->lock);
    if (!waiter)
        return;
    std::uint32_t *word = &waiter->passed;
    std::atomic_ref<std::uint32_t>(*word).store(1, std::memory_order_release);
    user::futex_wake(word, 1);
}

void gate_pass(os_user_gate *gate) {
    os_user_waiter self;
    spin_lock(&gate->lock);
    if (gate->passes) {
        gate->passes--;
        spin_unlock(&gate->lock);
        return;
    }
    if (gate->last)
        gate->last->next = &self;
    else
        gate->first = &self;
    gate->last = &self;
    spin_unlock(&gate->lock);
    std::atomic_ref<std::uint32_t> passed(self.passed);
    while (passed.load(std::memory_order_acquire) == 0)
        user::sleep_on(&self.passed, 0);
}

}  // namespace

extern "C" {

void os_lock_acquire(const os_lock_class *, const void *, os_lock_mode) {}
void os_lock_release(const os_lock_class *, const void *) {}

void os_spin_lock_init(os_spinlock *lock, const os_lock_class *) {
    lock->state = 0;
}

void os_spin_lock(os_spinlock *lock) {
    spin_lock(lock);
    user::current().spins_held++;
}

void os_spin_unlock(os_spinlock *lock) {
    user::current().spins_held--;
    spin_unlock(lock);
}

unsigned long os_spin_lock_irqsave(os_spinlock *lock) {
    os_spin_lock(lock);
    return 0;
}

void os_spin_unlock_irqrestore(os_spinlock *lock, unsigned long) {
    os_spin_unlock(lock);
}

void os_sema_init(os_semaphore *sema, int count) {
    gate_init(&sema->gate, count > 0 ? static_cast<std::uint32_t>(count) : 0);
}

void os_down(os_semaphore *sema) {
    user::may_sleep_here("os_down");
    gate_pass(&sema->gate);
}

void os_up(os_semaphore *sema) {
    gate_open(&sema->gate);
}

void os_init_completion(os_completion *completion) {
    gate_init(&completion->gate, 0);
}

void os_complete(os_completion *completion) {
    gate_open(&completion->gate);
}

void os_wait_for_completion(os_completion *completion) {
    user::may_sleep_here("os_wait_for_completion");
    gate_pass(&completion->gate);
}

}  // extern "C"
