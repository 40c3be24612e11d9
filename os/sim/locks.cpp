// os/sim/locks.cpp: spin locks, semaphores, completions; contexts and the order of locks
// SPDX-License-Identifier: GPL-2.0-only
//
// Order     whoever holds rank r takes only higher ranks, or the very same sleeping lock again.
//           An interrupt starts with nothing held: what it interrupted does not wait for it.
// Disks     the kernel opens, closes and takes away a disk under a mutex of its own, and waits for the
//           requests of one that goes, for writes when it freezes. Nobody calls that with a lock to
//           himself that those operations take.
// Contexts  a class taken in interrupts must never be held with interrupts enabled: sooner or later
//           the interrupt would come on the processor that holds it.
#include "os/lock.h"

#include "os/sim/kernel.h"

namespace sim {
namespace {

constexpr std::uint32_t kSpinMagic = 0x5b1a10cc;
constexpr std::uint32_t kSemaMagic = 0x5b1a5e4a;
constexpr std::uint32_t kDoneMagic = 0x5b1ad04e;
constexpr unsigned kUsedInInterrupt = 1;
constexpr unsigned kHeldWithInterrupts = 2;

void check_order(const os_task &task, const os_lock_class *cls, const void *lock, bool spin) {
    unsigned from = task.in_irq ? task.irq_held_base : 0;
    const Held *worst = nullptr;
    for (unsigned i = from; i < task.held_count; i++) {
        const Held &held = task.held[i];
        if (held.lock == lock && held.spin == spin) {
            if (spin)
                fail("spin lock %s is taken twice by %s", cls->name, task.comm);
            return;
        }
        if (held.cls->rank >= cls->rank)
            worst = &held;
    }
    if (worst)
        fail("lock order: %s (rank %u) is taken under %s (rank %u) by %s", cls->name, cls->rank,
             worst->cls->name, worst->cls->rank, task.comm);
}

void push_held(os_task &task, const os_lock_class *cls, const void *lock, bool spin,
               bool exclusive) {
    if (task.held_count == task.held.size())
        fail("%s holds %u locks", task.comm, task.held_count);
    task.held[task.held_count++] = {cls, lock, spin, exclusive};
}

// A spin lock may be the first field of the sleeping lock that it serves: same address, other kind.
bool pop_held(os_task &task, const void *lock, bool spin) {
    for (unsigned i = task.held_count; i-- > 0;) {
        if (task.held[i].lock != lock || task.held[i].spin != spin)
            continue;
        for (unsigned j = i + 1; j < task.held_count; j++)
            task.held[j - 1] = task.held[j];
        task.held_count--;
        return true;
    }
    return false;
}

void note_interrupt_use(const os_lock_class *cls, unsigned use) {
    Kernel &k = kernel();
    for (auto &entry : k.irq_use) {
        if (entry.first != cls)
            continue;
        entry.second |= use;
        if (entry.second == (kUsedInInterrupt | kHeldWithInterrupts))
            fail("lock class %s is taken in interrupt context and held with interrupts enabled",
                 cls->name);
        return;
    }
    k.irq_use.emplace_back(cls, use);
}

void note_disk_use(const os_task &task, const os_lock_class *cls) {
    const unsigned use = (task.in_open ? kByOpen : 0) | (task.in_make_request ? kByRequest : 0);
    if (use == 0)
        return;
    for (auto &entry : kernel().disk_use) {
        if (entry.first != cls)
            continue;
        entry.second |= use;
        return;
    }
    kernel().disk_use.emplace_back(cls, use);
}

void check_spin(const os_spinlock *lock, const char *function) {
    if (lock->magic != kSpinMagic)
        fail("%s: the spin lock was not initialised or is gone", function);
}

void spin_acquire(os_spinlock *lock, bool irq_saved) {
    os_task &task = self();
    point();
    if (lock->owner == &task)
        fail("spin lock %s is taken twice by %s%s", lock->cls->name, task.comm,
             task.in_irq ? " (an interrupt on top of the holder)" : "");
    check_order(task, lock->cls, lock, true);
    if (task.in_irq)
        note_interrupt_use(lock->cls, kUsedInInterrupt);
    else if (task.irq_off == 0)
        note_interrupt_use(lock->cls, kHeldWithInterrupts);
    while (lock->owner) {
        wait_in(lock->waiters, Wait::kSpin, lock);
        check_spin(lock, "os_spin_lock");
    }
    lock->owner = &task;
    lock->irq_saved = irq_saved;
    task.spin_depth++;
    push_held(task, lock->cls, lock, true, true);
}

void spin_release(os_spinlock *lock, bool irq_saved, const char *function) {
    check_spin(lock, function);
    os_task &task = self();
    if (lock->owner != &task)
        fail("%s: %s does not hold spin lock %s", function, task.comm, lock->cls->name);
    if ((lock->irq_saved != 0) != irq_saved)
        fail("%s: spin lock %s was taken by the other kind of call", function, lock->cls->name);
    pop_held(task, lock, true);
    task.spin_depth--;
    lock->owner = nullptr;
    wake_all(lock->waiters);
}

}  // namespace

void might_sleep(const char *what) {
    const os_task &task = self();
    if (task.in_irq)
        fail("%s may sleep, and is called in interrupt context (on top of %s)", what, task.comm);
    if (task.spin_depth) {
        const char *name = "?";
        for (unsigned i = 0; i < task.held_count; i++)
            name = task.held[i].spin ? task.held[i].cls->name : name;
        fail("%s may sleep, and is called by %s under spin lock %s", what, task.comm, name);
    }
    if (task.marked)
        fail("%s may sleep, and is called by %s between os_prepare_to_wait and os_schedule", what,
             task.comm);
}

void check_waits_for(unsigned uses, const char *function) {
    const os_task &task = self();
    for (unsigned i = 0; i < task.held_count; i++) {
        const Held &held = task.held[i];
        for (const auto &[cls, use] : kernel().disk_use)
            if (cls == held.cls && held.exclusive && (use & uses))
                fail("%s is called by %s with %s held, which operations of disks that it waits for "
                     "take",
                     function, task.comm, cls->name);
    }
}

void check_held_in_freed(const void *p, std::size_t size) {
    auto from = reinterpret_cast<std::uintptr_t>(p);
    for (const os_task *task : kernel().tasks) {
        for (unsigned i = 0; i < task->held_count; i++) {
            auto at = reinterpret_cast<std::uintptr_t>(task->held[i].lock);
            if (at >= from && at - from < size)
                fail("memory is freed that holds lock %s, which %s has taken",
                     task->held[i].cls->name, task->comm);
        }
    }
}

Depth depth_of(const os_task &task) {
    return {task.held_count, task.queued_entries, task.spin_depth};
}

void check_depth(const os_task &task, const Depth &before, const char *where) {
    if (task.held_count > before.held)
        fail("%s (%s) with lock %s held", where, task.comm,
             task.held[task.held_count - 1].cls->name);
    if (task.held_count < before.held)
        fail("%s (%s) with a lock of its caller released", where, task.comm);
    if (task.queued_entries != before.entries)
        fail("%s (%s) with an entry left on a wait queue", where, task.comm);
}

}  // namespace sim

using namespace sim;

extern "C" {

void os_lock_acquire(const struct os_lock_class *cls, const void *lock, enum os_lock_mode mode) {
    might_sleep("a sleeping lock");
    os_task &task = self();
    check_order(task, cls, lock, false);
    note_disk_use(task, cls);
    push_held(task, cls, lock, false, mode == OS_LOCK_EXCLUSIVE);
    point();
}

void os_lock_release(const struct os_lock_class *cls, const void *lock) {
    if (!pop_held(self(), lock, false))
        fail("os_lock_release: %s does not hold %s", self().comm, cls->name);
    point();
}

void os_spin_lock_init(struct os_spinlock *lock, const struct os_lock_class *cls) {
    *lock = os_spinlock{};
    lock->magic = kSpinMagic;
    lock->cls = cls;
}

void os_spin_lock(struct os_spinlock *lock) {
    check_spin(lock, "os_spin_lock");
    if (self().in_irq)
        fail("os_spin_lock of %s in interrupt context (use os_spin_lock_irqsave)", lock->cls->name);
    spin_acquire(lock, false);
}

void os_spin_unlock(struct os_spinlock *lock) {
    spin_release(lock, false, "os_spin_unlock");
    point();
}

unsigned long os_spin_lock_irqsave(struct os_spinlock *lock) {
    check_spin(lock, "os_spin_lock_irqsave");
    os_task &task = self();
    point();  // the last place where an interrupt may come
    unsigned long flags = task.irq_off;
    task.irq_off++;
    spin_acquire(lock, true);
    lock->flags = flags;
    return flags;
}

void os_spin_unlock_irqrestore(struct os_spinlock *lock, unsigned long flags) {
    check_spin(lock, "os_spin_unlock_irqrestore");
    if (lock->owner == &self() && lock->flags != flags)
        fail("os_spin_unlock_irqrestore of %s: flags %lu are not those that the lock call returned",
             lock->cls->name, flags);
    spin_release(lock, true, "os_spin_unlock_irqrestore");
    self().irq_off--;
    point();
}

void os_sema_init(struct os_semaphore *sema, int count) {
    *sema = os_semaphore{kSemaMagic, count, {}};
}

void os_down(struct os_semaphore *sema) {
    might_sleep("os_down");
    if (sema->magic != kSemaMagic)
        fail("os_down: the semaphore was not initialised or is gone");
    point();
    if (sema->count > 0)
        sema->count--;
    else
        wait_in(sema->waiters, Wait::kSemaphore, sema);  // os_up hands its unit over
}

void os_up(struct os_semaphore *sema) {
    if (sema->magic != kSemaMagic)
        fail("os_up: the semaphore was not initialised or is gone");
    if (!wake_one(sema->waiters))
        sema->count++;
    point();
}

void os_init_completion(struct os_completion *completion) {
    *completion = os_completion{kDoneMagic, 0, {}};
}

void os_complete(struct os_completion *completion) {
    if (completion->magic != kDoneMagic)
        fail("os_complete: the completion was not initialised or is gone");
    if (!wake_one(completion->waiters))
        completion->done++;
    point();
}

void os_wait_for_completion(struct os_completion *completion) {
    might_sleep("os_wait_for_completion");
    if (completion->magic != kDoneMagic)
        fail("os_wait_for_completion: the completion was not initialised or is gone");
    point();
    if (completion->done > 0)
        completion->done--;
    else
        wait_in(completion->waiters, Wait::kCompletion, completion);
}

}  // extern "C"
