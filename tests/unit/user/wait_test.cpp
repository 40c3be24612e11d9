// tests/unit/user/wait_test.cpp: wait queues, signals, kernel threads
// SPDX-License-Identifier: GPL-2.0-only
#include "os/wait.h"

#include <thread>

#include "os/task.h"
#include "user_testing.h"

namespace {

using user_testing::eventually;

struct Gate {
    os_wait_queue_head head;
    os_spinlock lock;
    int turn = 0;
    Gate() {
        os_init_waitqueue_head(&head);
        os_spin_lock_init(&lock, nullptr);
    }
    int value() {
        os_spin_lock(&lock);
        int now = turn;
        os_spin_unlock(&lock);
        return now;
    }
    void advance() {
        os_spin_lock(&lock);
        turn++;
        os_spin_unlock(&lock);
        os_wake_up(&head);
    }
    void wait_for(int wanted, os_wait_mode mode) {
        os_wait_entry entry;
        os_init_wait_entry(&entry);
        os_prepare_to_wait(&head, &entry, mode);
        while (value() < wanted && !(mode == OS_WAIT_INTERRUPTIBLE && os_signal_pending())) {
            os_schedule();
            os_prepare_to_wait(&head, &entry, mode);
        }
        os_finish_wait(&head, &entry);
    }
};

TEST(user_wait, a_wake_up_after_the_prepare_is_not_lost) {
    os_wait_queue_head head;
    os_init_waitqueue_head(&head);
    os_wait_entry entry;
    os_init_wait_entry(&entry);
    os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
    std::thread([&] { os_wake_up(&head); }).join();
    os_schedule();  // returns at once; a lost wake-up hangs the test
    os_finish_wait(&head, &entry);
    EXPECT_EQ(head.first, nullptr);
}

TEST(user_wait, threads_that_wake_each_other_in_turn_all_get_through) {
    constexpr int kThreads = 4, kRounds = 1500;
    Gate gate;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; i++) {
                gate.wait_for(i * kThreads + t, OS_WAIT_UNINTERRUPTIBLE);
                gate.advance();
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(gate.value(), kThreads * kRounds);
}

TEST(user_wait, the_head_may_go_once_every_waiter_has_finished) {
    for (int i = 0; i < 2000; i++) {
        auto gate = std::make_unique<Gate>();
        std::thread waiter([&] { gate->wait_for(1, OS_WAIT_UNINTERRUPTIBLE); });
        gate->advance();
        waiter.join();
        gate.reset();
    }
}

TEST(user_wait, a_signal_ends_an_interruptible_sleep) {
    Gate gate;
    std::atomic<os_task *> task{nullptr};
    std::atomic<bool> pending{false};
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        user::CallerScope scope(user::Caller{0, 0, {}});
        task = os_current();
        gate.wait_for(1, OS_WAIT_INTERRUPTIBLE);
        pending = os_signal_pending();
        done = true;
        eventually([&] { return task.load() == nullptr; });
    });
    EXPECT_TRUE(eventually([&] { return task.load() != nullptr; }));
    user::send_signal(task);
    EXPECT_TRUE(eventually([&] { return done.load(); }));
    EXPECT_TRUE(pending.load());
    task = nullptr;
    waiter.join();
}

TEST(user_wait, a_signal_leaves_an_uninterruptible_sleep_alone) {
    Gate gate;
    std::atomic<os_task *> task{nullptr};
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        task = os_current();
        gate.wait_for(1, OS_WAIT_UNINTERRUPTIBLE);
        done = true;
    });
    EXPECT_TRUE(eventually([&] { return task.load() != nullptr; }));
    user::send_signal(task);
    EXPECT_FALSE(done.load());
    gate.advance();
    waiter.join();
    EXPECT_TRUE(done.load());
}

TEST(user_wait, a_new_command_forgets_the_signal_of_the_one_before) {
    {
        user::CallerScope scope(user::Caller{0, 0, {}});
        user::send_signal(os_current());
        EXPECT_TRUE(os_signal_pending());
    }
    EXPECT_FALSE(os_signal_pending());
}

struct Threaded {
    os_completion exited;
    std::atomic<int> pid{0};
    std::string name;
    bool interrupt = true;
};

int thread_body(void *arg) {
    auto *threaded = static_cast<Threaded *>(arg);
    os_daemonize("kernel-thread-of-test");
    char comm[OS_TASK_COMM_LEN];
    os_current_comm(comm);
    threaded->name = comm;
    threaded->pid = os_current_pid();
    threaded->interrupt = os_in_interrupt();
    os_complete_and_exit(&threaded->exited, 0);
    return 0;
}

class user_thread : public user_testing::PlatformTest {};

TEST_F(user_thread, it_has_a_pid_a_name_cut_to_size_and_ends_with_its_completion) {
    Threaded threaded;
    os_init_completion(&threaded.exited);
    int pid = os_kernel_thread(thread_body, &threaded, OS_CLONE_FS | OS_CLONE_FILES, "body");
    ASSERT_GT(pid, 0);
    os_wait_for_completion(&threaded.exited);
    EXPECT_EQ(threaded.pid, pid);
    EXPECT_NE(pid, os_current_pid());
    EXPECT_EQ(threaded.name, "kernel-thread-o");
    EXPECT_FALSE(threaded.interrupt);
}

int late_body(void *arg) {
    static_cast<Gate *>(arg)->wait_for(1, OS_WAIT_UNINTERRUPTIBLE);
    static_cast<Gate *>(arg)->advance();
    return 0;
}

TEST(user_platform, stopping_joins_the_threads_of_the_driver) {
    ASSERT_EQ(user::start({}, nullptr), 0);
    Gate gate;
    ASSERT_GT(os_kernel_thread(late_body, &gate, 0, "late"), 0);
    gate.advance();
    user::stop();
    EXPECT_EQ(gate.value(), 2);
}

TEST(user_platform, it_starts_once_and_afresh_after_a_stop) {
    std::string why;
    ASSERT_EQ(user::start({}, &why), 0) << why;
    EXPECT_EQ(user::start({}, &why), -EALREADY);
    EXPECT_EQ(why, "the platform runs already");
    user::stop();
    EXPECT_EQ(user::start({}, &why), 0);
    user::stop();
    user::Options none;
    none.queue_depth = 0;
    EXPECT_EQ(user::start(none, &why), -EINVAL);
}

TEST(user_platform, module_references_are_counted) {
    int before = user::module_references();
    os_module_get();
    os_module_get();
    EXPECT_EQ(user::module_references(), before + 2);
    os_module_put();
    os_module_put();
    EXPECT_EQ(user::module_references(), before);
}

}  // namespace
