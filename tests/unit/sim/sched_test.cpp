// tests/unit/sim/sched_test.cpp: deadlocks, livelocks, lost wake-ups, time, replay
// SPDX-License-Identifier: GPL-2.0-only
#include <set>

#include "os/lock.h"
#include "os/log.h"
#include "os/task.h"
#include "os/time.h"
#include "os/wait.h"
#include "tests/unit/sim/provoke.h"

namespace sim_tests::sched {

constexpr os_lock_class kA{"lock A", 10}, kB{"lock B", 20};

// Two processes at a shared counter, with disk I/O between: something for the scheduler to decide.
void busy_body() {
    os_spinlock lock;
    os_spin_lock_init(&lock, &kA);
    int total = 0;
    sim::Process *processes[3];
    for (sim::Process *&process : processes)
        process = sim::spawn("worker", [&] {
            int err = 0;
            os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
            for (int i = 0; i < 5; i++) {
                os_spin_lock(&lock);
                os_printk("<6>%d: %d\n", os_current_pid(), ++total);
                os_spin_unlock(&lock);
                sim::Bytes data(512);
                EXPECT_EQ(sim::read_device(bdev, 3, data), 0);
            }
            sim::close_device(bdev);
        });
    for (sim::Process *process : processes)
        sim::join(process);
}

struct Outcome {
    std::uint64_t trace = 0;
    std::vector<std::string> log;
};

Outcome run_of(std::uint64_t seed) {
    Machine machine;
    Outcome run;
    machine.run(options_of(seed), [&] {
        busy_body();
        run.trace = sim::trace();
        run.log = sim::log();
    });
    return run;
}

TEST(sim_sched, one_seed_gives_one_run) {
    for (std::uint64_t seed = 1; seed <= 50; seed++) {
        Outcome first = run_of(seed), second = run_of(seed);
        EXPECT_EQ(first.trace, second.trace);
        EXPECT_EQ(first.log, second.log);
    }
}

TEST(sim_sched, seeds_give_different_runs) {
    std::set<std::vector<std::string>> orders;
    for (std::uint64_t seed = 1; seed <= 50; seed++)
        orders.insert(run_of(seed).log);
    EXPECT_GT(orders.size(), 20u);
}

TEST(sim_sched, two_locks_in_two_orders_deadlock_on_some_seed) {
    std::string text = failure_on_some_seed(100, [] {
        os_semaphore a, b;
        os_sema_init(&a, 1);
        os_sema_init(&b, 1);
        sim::Process *other = sim::spawn("other", [&] {
            os_down(&b);
            os_down(&a);
            os_up(&a);
            os_up(&b);
        });
        os_down(&a);
        os_down(&b);
        os_up(&b);
        os_up(&a);
        sim::join(other);
    });
    EXPECT_SAYS(text, "deadlock: every task sleeps");
    EXPECT_SAYS(text, "other (pid");
    EXPECT_SAYS(text, "a semaphore");
}

TEST(sim_sched, spin_locks_in_two_orders_deadlock_or_break_the_order) {
    std::string text = failure_of([] {
        os_spinlock a, b;
        os_spin_lock_init(&a, &kA);
        os_spin_lock_init(&b, &kB);
        os_spin_lock(&b);
        os_spin_lock(&a);
    });
    EXPECT_SAYS(text, "lock order: lock A (rank 10) is taken under lock B (rank 20)");
}

TEST(sim_sched, a_wait_that_nobody_ends_is_a_deadlock) {
    EXPECT_SAYS(failure_of([] {
                    os_completion never;
                    os_init_completion(&never);
                    os_wait_for_completion(&never);
                }),
                "deadlock: every task sleeps");
}

TEST(sim_sched, a_request_on_a_held_disk_is_a_deadlock_that_says_so) {
    Machine machine;
    machine.disk.hold(true);
    std::string text;
    try {
        machine.run(options_of(1), [] {
            int err = 0;
            os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
            sim::Bytes data(512);
            (void)sim::read_device(bdev, 0, data);
        });
    } catch (const sim::Failure &failure) {
        text = failure.what();
    }
    EXPECT_SAYS(text, "deadlock");
    EXPECT_SAYS(text, "held disk");
}

TEST(sim_sched, a_condition_that_never_comes_is_a_deadlock) {
    EXPECT_SAYS(failure_of([] { sim::wait_until([] { return false; }); }), "deadlock");
}

TEST(sim_sched, endless_yielding_is_a_livelock) {
    EXPECT_SAYS(failure_of([] {
                    for (;;)
                        os_yield();
                }),
                "livelock");
}

TEST(sim_sched, too_many_steps_are_a_livelock) {
    sim::Options options;
    options.max_steps = 5000;
    EXPECT_SAYS(failure_of(options,
                           [] {
                               sim::spawn("other", [] {
                                   for (;;)
                                       os_yield();
                               });
                               for (;;)
                                   os_yield();
                           }),
                "livelock: 5000 scheduling points");
}

TEST(sim_sched, test_before_queueing_loses_the_wake_up_on_some_seed) {
    std::string text = failure_on_some_seed(200, [] {
        os_wait_queue_head head;
        os_init_waitqueue_head(&head);
        bool ready = false;
        sim::Process *sleeper = sim::spawn("sleeper", [&] {
            os_wait_entry entry;
            os_init_wait_entry(&entry);
            if (!ready) {  // too early: the wake-up may come before the entry is queued
                os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
                os_schedule();
                os_finish_wait(&head, &entry);
            }
        });
        ready = true;
        os_wake_up(&head);
        sim::join(sleeper);
    });
    EXPECT_SAYS(text, "deadlock");
    EXPECT_SAYS(text, "lost wake-up?");
}

TEST(sim_sched, an_entry_left_on_a_queue_is_found_when_the_task_ends) {
    EXPECT_SAYS(failure_of([] {
                    static os_wait_queue_head head;
                    static os_wait_entry entry;
                    os_init_waitqueue_head(&head);
                    os_init_wait_entry(&entry);
                    os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
                }),
                "an entry left on a wait queue");
}

TEST(sim_sched, virtual_time_costs_no_time_and_stands_in_order) {
    Machine machine;
    machine.run(options_of(3), [] {
        std::vector<int> order;
        std::uint64_t before = os_jiffies();
        sim::Process *late = sim::spawn("late", [&] {
            sim::sleep_ms(3'600'000);
            order.push_back(2);
        });
        sim::Process *soon = sim::spawn("soon", [&] {
            sim::sleep_ms(10);
            order.push_back(1);
        });
        sim::join(late);
        sim::join(soon);
        EXPECT_EQ(order, (std::vector<int>{1, 2}));
        EXPECT_GE(os_jiffies(), before + 3'600'000);
    });
}

TEST(sim_sched, ticks_pass_thirty_two_bits_within_seconds) {
    Machine machine;
    machine.run(options_of(1), [] {
        EXPECT_LT(os_jiffies(), std::uint64_t{1} << 32);
        sim::sleep_ms(60'000);
        EXPECT_GT(os_jiffies(), std::uint64_t{1} << 32);
    });
}

TEST(sim_sched, a_poll_loop_with_a_deadline_ends_in_few_steps) {
    Machine machine;
    sim::Options options = options_of(1);
    options.max_steps = 300'000;
    machine.run(options, [] {
        std::uint64_t deadline = os_jiffies() + 60'000;
        while (os_jiffies() < deadline)
            os_yield();
    });
}

TEST(sim_sched, a_kernel_thread_that_is_left_is_found) {
    std::string text = failure_of([] {
        static os_completion never;
        os_init_completion(&never);
        ASSERT_GT(os_kernel_thread(
                      [](void *) {
                          os_daemonize("straggler");
                          os_wait_for_completion(&never);
                          return 0;
                      },
                      nullptr, 0, "straggler"),
                  0);
    });
    EXPECT_SAYS(text, "kernel threads were not ended: straggler");
}

TEST(sim_sched, a_kernel_thread_that_runs_for_ever_is_found) {
    EXPECT_SAYS(failure_of([] {
                    ASSERT_GT(os_kernel_thread(
                                  [](void *) {
                                      for (;;)
                                          os_yield();
                                      return 0;
                                  },
                                  nullptr, 0, "straggler"),
                              0);
                }),
                "livelock");
}

}  // namespace sim_tests::sched
