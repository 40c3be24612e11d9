// tests/contract/lock_contract.cpp: what os/lock.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <atomic>

#include "tests/contract/platform.h"

namespace contract::lock_tests {

namespace {

constexpr os_lock_class kOuter{"contract outer", 10};
constexpr os_lock_class kInner{"contract inner", 20};
constexpr int kProcesses = 4;
constexpr int kRounds = 50;

// Runs fn in some processes at once and waits for all.
void at_once(const std::function<void()> &fn) {
    Process *processes[kProcesses];
    for (Process *&process : processes)
        process = start(fn);
    for (Process *process : processes)
        join(process);
}

}  // namespace

TEST(lock, spin_lock_lets_one_task_in_at_a_time) {
    run([] {
        os_spinlock lock;
        os_spin_lock_init(&lock, &kOuter);
        int inside = 0, worst = 0, total = 0;
        at_once([&] {
            for (int i = 0; i < kRounds; i++) {
                os_spin_lock(&lock);
                worst = std::max(worst, ++inside);
                total++;
                inside--;
                os_spin_unlock(&lock);
            }
        });
        EXPECT_EQ(worst, 1);
        EXPECT_EQ(total, kProcesses * kRounds);
    });
}

TEST(lock, irqsave_lets_one_task_in_at_a_time) {
    run([] {
        os_spinlock lock;
        os_spin_lock_init(&lock, &kOuter);
        int total = 0;
        at_once([&] {
            for (int i = 0; i < kRounds; i++) {
                unsigned long flags = os_spin_lock_irqsave(&lock);
                total++;
                os_spin_unlock_irqrestore(&lock, flags);
            }
        });
        EXPECT_EQ(total, kProcesses * kRounds);
    });
}

TEST(lock, spin_locks_of_rising_rank_nest) {
    run([] {
        os_spinlock outer, inner;
        os_spin_lock_init(&outer, &kOuter);
        os_spin_lock_init(&inner, &kInner);
        int total = 0;
        at_once([&] {
            for (int i = 0; i < kRounds; i++) {
                unsigned long outer_flags = os_spin_lock_irqsave(&outer);
                unsigned long inner_flags = os_spin_lock_irqsave(&inner);
                total++;
                os_spin_unlock_irqrestore(&inner, inner_flags);
                os_spin_unlock_irqrestore(&outer, outer_flags);
            }
        });
        EXPECT_EQ(total, kProcesses * kRounds);
    });
}

TEST(lock, spin_lock_can_be_taken_again_after_a_new_init) {
    run([] {
        os_spinlock lock;
        for (int i = 0; i < 3; i++) {
            os_spin_lock_init(&lock, &kOuter);
            os_spin_lock(&lock);
            os_spin_unlock(&lock);
        }
    });
}

TEST(lock, notes_of_sleeping_locks_take_nesting_and_both_modes) {
    run([] {
        int a = 0, b = 0;
        os_lock_acquire(&kOuter, &a, OS_LOCK_EXCLUSIVE);
        os_lock_acquire(&kOuter, &a, OS_LOCK_EXCLUSIVE);
        os_lock_acquire(&kInner, &b, OS_LOCK_SHARED);
        os_lock_release(&kInner, &b);
        os_lock_release(&kOuter, &a);
        os_lock_release(&kOuter, &a);
    });
}

TEST(lock, semaphore_lets_as_many_in_as_it_counts) {
    run([] {
        os_semaphore sema;
        os_sema_init(&sema, 2);
        std::atomic<int> inside{0}, worst{0};
        at_once([&] {
            for (int i = 0; i < kRounds; i++) {
                os_down(&sema);
                int now = ++inside;
                int seen = worst;
                while (now > seen && !worst.compare_exchange_weak(seen, now)) {
                }
                os_yield();
                inside--;
                os_up(&sema);
            }
        });
        EXPECT_LE(worst, 2);
        os_down(&sema);  // both units are back
        os_down(&sema);
        os_up(&sema);
        os_up(&sema);
    });
}

TEST(lock, semaphore_of_count_zero_holds_until_somebody_ups_it) {
    run([] {
        os_semaphore sema;
        os_sema_init(&sema, 0);
        std::atomic<bool> passed{false}, upped{false};
        Process *waiter = start([&] {
            os_down(&sema);
            EXPECT_TRUE(upped);
            passed = true;
        });
        linger();
        EXPECT_FALSE(passed);
        upped = true;
        os_up(&sema);
        join(waiter);
        EXPECT_TRUE(passed);
    });
}

TEST(lock, semaphore_remembers_ups_that_came_before_the_down) {
    run([] {
        os_semaphore sema;
        os_sema_init(&sema, 0);
        os_up(&sema);
        os_up(&sema);
        os_down(&sema);
        os_down(&sema);
    });
}

TEST(lock, semaphore_as_a_mutex_lets_one_task_in_at_a_time) {
    run([] {
        os_semaphore sema;
        os_sema_init(&sema, 1);
        int inside = 0, worst = 0;
        at_once([&] {
            for (int i = 0; i < kRounds; i++) {
                os_down(&sema);
                worst = std::max(worst, ++inside);
                os_yield();
                inside--;
                os_up(&sema);
            }
        });
        EXPECT_EQ(worst, 1);
    });
}

TEST(lock, completion_lets_one_waiter_through_for_each_complete) {
    run([] {
        os_completion completion;
        os_init_completion(&completion);
        std::atomic<int> through{0};
        Process *waiters[3];
        for (Process *&waiter : waiters)
            waiter = start([&] {
                os_wait_for_completion(&completion);
                through++;
            });
        for (int i = 1; i <= 3; i++) {
            linger();
            EXPECT_LE(through, i - 1);
            os_complete(&completion);
            eventually([&] { return through == i; });
        }
        for (Process *waiter : waiters)
            join(waiter);
    });
}

TEST(lock, completion_remembers_a_complete_that_came_first) {
    run([] {
        os_completion completion;
        os_init_completion(&completion);
        os_complete(&completion);
        os_complete(&completion);
        os_wait_for_completion(&completion);
        os_wait_for_completion(&completion);
    });
}

TEST(lock, completion_may_be_freed_as_soon_as_the_waiter_is_back) {
    run([] {
        for (int i = 0; i < kRounds; i++) {
            auto *completion =
                static_cast<os_completion *>(os_kmalloc(sizeof(os_completion), OS_GFP_KERNEL));
            ASSERT_NE(completion, nullptr);
            os_init_completion(completion);
            Process *other = start([completion] { os_complete(completion); });
            os_wait_for_completion(completion);
            os_kfree(completion);
            join(other);
        }
    });
}

TEST(lock, up_and_complete_work_under_a_spin_lock) {
    run([] {
        os_spinlock lock;
        os_semaphore sema;
        os_completion completion;
        os_spin_lock_init(&lock, &kOuter);
        os_sema_init(&sema, 0);
        os_init_completion(&completion);
        Process *waiter = start([&] {
            os_down(&sema);
            os_wait_for_completion(&completion);
        });
        unsigned long flags = os_spin_lock_irqsave(&lock);
        os_up(&sema);
        os_complete(&completion);
        os_spin_unlock_irqrestore(&lock, flags);
        join(waiter);
    });
}

TEST(lock, completion_can_be_used_again_after_a_new_init) {
    run([] {
        os_completion completion;
        for (int i = 0; i < 3; i++) {
            os_init_completion(&completion);
            os_complete(&completion);
            os_wait_for_completion(&completion);
        }
    });
}

}  // namespace contract::lock_tests
