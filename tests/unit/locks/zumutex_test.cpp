// tests/unit/locks/zumutex_test.cpp: the recursive mutex
// SPDX-License-Identifier: GPL-2.0-only
#include <memory>

#include "driver/block/lock_ranks.h"
#include "driver/block/locks.h"
#include "tests/support/sim_run.h"

namespace {

constexpr char not_holder[] = "zumutex_unlock(): Can't unlock mutex: not owner.";

void with_mutex(const std::function<void(zumutex *)> &fn, std::uint64_t seed = 1) {
    sim_run::boot(
        [&] {
            auto mutex = std::make_unique<zumutex>();
            zumutex_init(mutex.get(), &trak_rank_filter_mutex);
            fn(mutex.get());
            EXPECT_EQ(mutex->depth, 0u);
            EXPECT_EQ(mutex->owner, nullptr);
        },
        seed);
}

TEST(zumutex, is_free_after_init) {
    with_mutex([](zumutex *mutex) {
        EXPECT_EQ(mutex->owner, nullptr);
        EXPECT_EQ(mutex->depth, 0u);
        zumutex_lock(mutex);
        EXPECT_EQ(mutex->owner, os_current());
        EXPECT_EQ(mutex->depth, 1u);
        zumutex_unlock(mutex);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(zumutex, holder_nests_and_only_the_last_unlock_lets_others_in) {
    with_mutex([](zumutex *mutex) {
        zumutex_lock(mutex);
        zumutex_lock(mutex);
        EXPECT_EQ(mutex->depth, 2u);
        bool entered = false;
        sim::Process *other = sim::spawn("other", [&] {
            zumutex_lock(mutex);
            entered = true;
            zumutex_unlock(mutex);
        });
        zumutex_unlock(mutex);
        for (int i = 0; i < 50; ++i)
            sim::yield();
        EXPECT_FALSE(entered);
        zumutex_unlock(mutex);
        sim::join(other);
        EXPECT_TRUE(entered);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(zumutex, unlock_by_a_task_that_is_not_the_holder_is_logged_and_leaves_it_held) {
    with_mutex([](zumutex *mutex) {
        zumutex_lock(mutex);
        os_task *const me = os_current();
        sim::join(sim::spawn("other", [&] { zumutex_unlock(mutex); }));
        EXPECT_EQ(mutex->owner, me);
        EXPECT_EQ(mutex->depth, 1u);
        EXPECT_LOGGED_ERROR(not_holder);
        zumutex_unlock(mutex);
        EXPECT_EQ(sim::count_log("ERROR"), 1u);
    });
}

TEST(zumutex, unlock_of_a_free_mutex_is_logged_and_ignored) {
    with_mutex([](zumutex *mutex) {
        zumutex_unlock(mutex);
        EXPECT_LOGGED_ERROR(not_holder);
        zumutex_lock(mutex);
        EXPECT_EQ(mutex->depth, 1u);
        zumutex_unlock(mutex);
    });
}

TEST(zumutex, holders_exclude_each_other) {
    sim::for_each_seed(60, [&](std::uint64_t seed) {
        with_mutex(
            [&](zumutex *mutex) {
                int inside = 0;
                std::vector<sim::Process *> tasks;
                for (int t = 0; t < 4; ++t)
                    tasks.push_back(sim::spawn("task", [&] {
                        for (int i = 0; i < 6; ++i) {
                            const zumutex_guard outer(mutex);
                            EXPECT_EQ(inside++, 0);
                            {
                                const zumutex_guard inner(mutex);
                                sim::yield();
                            }
                            EXPECT_EQ(--inside, 0);
                        }
                    }));
                for (sim::Process *task : tasks)
                    sim::join(task);
                EXPECT_NOTHING_LOGGED();
            },
            seed);
    });
}

TEST(zumutex, taking_one_of_lower_rank_is_found) {
    const std::string failure = sim_run::failure_of([] {
        auto low = std::make_unique<zumutex>();
        auto high = std::make_unique<zumutex>();
        zumutex_init(low.get(), &trak_rank_filter_mutex);
        zumutex_init(high.get(), &trak_rank_bmp_mutex);
        zumutex_lock(high.get());
        zumutex_lock(low.get());
    });
    EXPECT_NE(failure.find("filter dev_mutex"), std::string::npos) << failure;
}

}  // namespace
