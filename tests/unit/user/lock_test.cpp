// tests/unit/user/lock_test.cpp: spin locks, semaphores, completions between real threads
// SPDX-License-Identifier: GPL-2.0-only
#include "os/lock.h"

#include <thread>

#include "os/task.h"
#include "user_testing.h"

namespace {

TEST(user_lock, a_spin_lock_lets_one_thread_in_at_a_time) {
    os_spinlock lock;
    os_spin_lock_init(&lock, nullptr);
    constexpr int kRounds = 20000;
    int plain = 0;  // a data race if the lock let two in
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; i++) {
                unsigned long flags = os_spin_lock_irqsave(&lock);
                plain++;
                os_spin_unlock_irqrestore(&lock, flags);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(plain, 4 * kRounds);
}

TEST(user_lock, a_semaphore_admits_as_many_as_it_counts) {
    os_semaphore sema;
    os_sema_init(&sema, 2);
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; i++) {
                os_down(&sema);
                int now = ++inside;
                int seen = most.load();
                while (seen < now && !most.compare_exchange_weak(seen, now))
                    ;
                if (i % 16 == 0)
                    os_yield();
                --inside;
                os_up(&sema);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_LE(most.load(), 2);
    EXPECT_EQ(inside.load(), 0);
}

TEST(user_lock, each_complete_lets_one_waiter_through) {
    os_completion completion;
    os_init_completion(&completion);
    std::atomic<int> through{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++)
        threads.emplace_back([&] {
            os_wait_for_completion(&completion);
            through++;
        });
    os_complete(&completion);
    os_complete(&completion);
    EXPECT_TRUE(user_testing::eventually([&] { return through == 2; }));
    EXPECT_EQ(through.load(), 2);
    os_complete(&completion);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(through.load(), 3);
}

TEST(user_lock, a_complete_before_the_wait_is_kept) {
    os_completion completion;
    os_init_completion(&completion);
    os_complete(&completion);
    os_wait_for_completion(&completion);
}

TEST(user_lock, the_waiter_may_free_the_completion_at_once) {
    for (int i = 0; i < 3000; i++) {
        auto completion = std::make_unique<os_completion>();
        os_init_completion(completion.get());
        std::thread completer([p = completion.get()] { os_complete(p); });
        os_wait_for_completion(completion.get());
        memset(static_cast<void *>(completion.get()), 0xff, sizeof(os_completion));
        completion.reset();
        completer.join();
    }
}

TEST(user_lock_death, sleeping_under_a_spin_lock_is_a_bug) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    os_spinlock lock;
    os_spin_lock_init(&lock, nullptr);
    os_completion completion;
    os_init_completion(&completion);
    os_complete(&completion);
    EXPECT_DEATH(
        {
            os_spin_lock(&lock);
            os_wait_for_completion(&completion);
        },
        "BUG: os_wait_for_completion");
}

}  // namespace
