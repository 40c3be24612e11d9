// tests/contract/task_contract.cpp: what os/task.h, os/time.h and os/random.h promise
// SPDX-License-Identifier: GPL-2.0-only
#include <atomic>
#include <cstring>

#include "tests/contract/platform.h"

namespace contract::task_tests {

namespace {

// What a kernel thread of these tests is told and what it tells.
struct Thread {
    os_completion exited;
    os_task *task = nullptr;
    int pid = 0;
    char comm[OS_TASK_COMM_LEN] = {};
    bool in_interrupt = true;
    bool signal_pending = true;
};

int thread_main(void *arg) {
    auto *thread = static_cast<Thread *>(arg);
    os_daemonize("contractd");
    thread->task = os_current();
    thread->pid = os_current_pid();
    os_current_comm(thread->comm);
    thread->in_interrupt = os_in_interrupt();
    thread->signal_pending = os_signal_pending();
    os_complete_and_exit(&thread->exited, 0);
    return 0;
}

int start_thread(Thread *thread) {
    os_init_completion(&thread->exited);
    return os_kernel_thread(thread_main, thread, OS_CLONE_FS | OS_CLONE_FILES | OS_CLONE_SIGHAND,
                            "contractd");
}

}  // namespace

TEST(task, kernel_thread_runs_its_function_and_returns_the_pid) {
    run([] {
        Thread thread;
        int pid = start_thread(&thread);
        ASSERT_GT(pid, 0);
        os_wait_for_completion(&thread.exited);
        EXPECT_EQ(thread.pid, pid);
    });
}

TEST(task, daemonize_names_the_thread) {
    run([] {
        Thread thread;
        ASSERT_GT(start_thread(&thread), 0);
        os_wait_for_completion(&thread.exited);
        EXPECT_STREQ(thread.comm, "contractd");
    });
}

TEST(task, long_names_are_cut_and_terminated) {
    run([] {
        static char name[OS_TASK_COMM_LEN];
        Thread thread;
        os_init_completion(&thread.exited);
        ASSERT_GT(os_kernel_thread(
                      [](void *arg) {
                          os_daemonize("a_name_of_more_than_fifteen");
                          os_current_comm(name);
                          os_complete_and_exit(static_cast<os_completion *>(arg), 0);
                          return 0;
                      },
                      &thread.exited, 0, "a_name_of_more_than_fifteen"),
                  0);
        os_wait_for_completion(&thread.exited);
        EXPECT_STREQ(name, "a_name_of_more_");
    });
}

TEST(task, kernel_thread_is_another_task_and_no_interrupt) {
    run([] {
        Thread thread;
        ASSERT_GT(start_thread(&thread), 0);
        os_wait_for_completion(&thread.exited);
        EXPECT_NE(thread.task, os_current());
        EXPECT_NE(thread.pid, os_current_pid());
        EXPECT_FALSE(thread.in_interrupt);
        EXPECT_FALSE(thread.signal_pending);
    });
}

TEST(task, several_threads_run_at_once) {
    run([] {
        Thread threads[5];
        for (Thread &thread : threads)
            ASSERT_GT(start_thread(&thread), 0);
        for (Thread &thread : threads)
            os_wait_for_completion(&thread.exited);
        for (int i = 0; i < 5; i++)
            for (int j = 0; j < i; j++)
                EXPECT_NE(threads[i].pid, threads[j].pid);
    });
}

TEST(task, current_is_the_same_for_one_task_and_differs_between_two) {
    run([] {
        os_task *first = os_current();
        EXPECT_EQ(os_current(), first);
        os_task *other = nullptr;
        std::atomic<bool> told{false}, go{false};
        Process *process = start([&] {
            other = os_current();
            EXPECT_EQ(os_current(), other);
            told = true;
            eventually([&] { return go.load(); });
        });
        eventually([&] { return told.load(); });
        EXPECT_NE(other, first);
        EXPECT_EQ(os_current(), first);
        go = true;
        join(process);
    });
}

TEST(task, process_context_is_no_interrupt) {
    run([] {
        EXPECT_FALSE(os_in_interrupt());
        EXPECT_GT(os_current_pid(), 0);
        char comm[OS_TASK_COMM_LEN];
        std::memset(comm, 'x', sizeof comm);
        os_current_comm(comm);
        EXPECT_NE(std::memchr(comm, 0, sizeof comm), nullptr);
    });
}

TEST(task, yield_schedule_and_cond_resched_come_back) {
    run([] {
        for (int i = 0; i < 10; i++) {
            os_yield();
            os_schedule();
            os_cond_resched();
        }
    });
}

TEST(task, yielding_lets_the_other_one_run) {
    run([] {
        std::atomic<bool> done{false};
        Process *other = start([&] { done = true; });
        while (!done)
            os_yield();
        join(other);
    });
}

TEST(task, module_references_are_counted) {
    run([] {
        int before = module_references();
        os_module_get();
        os_module_get();
        EXPECT_EQ(module_references(), before + 2);
        os_module_put();
        os_module_put();
        EXPECT_EQ(module_references(), before);
    });
}

TEST(task, release_string_is_there_and_constant) {
    run([] {
        ASSERT_NE(os_utsrelease(), nullptr);
        EXPECT_STRNE(os_utsrelease(), "");
        EXPECT_EQ(os_utsrelease(), os_utsrelease());
    });
}

TEST(time, jiffies_never_go_back_and_move_on) {
    run([] {
        std::uint64_t first = os_jiffies(), last = first;
        EXPECT_TRUE(eventually([&] {
            std::uint64_t now = os_jiffies();
            EXPECT_GE(now, last);
            last = now;
            return now >= first + 3;
        }));
    });
}

TEST(time, a_wait_for_a_number_of_ticks_ends) {
    run([] {
        std::uint64_t deadline = os_jiffies() + 20;
        while (os_jiffies() < deadline)
            os_yield();
    });
}

TEST(random, every_byte_is_filled_and_two_fills_differ) {
    run([] {
        unsigned char a[64] = {}, b[64] = {};
        os_get_random_bytes(a, sizeof a);
        os_get_random_bytes(b, sizeof b);
        EXPECT_NE(std::memcmp(a, b, sizeof a), 0);
        unsigned char ever[64] = {};
        for (int i = 0; i < 64; i++) {
            os_get_random_bytes(a, sizeof a);
            for (unsigned j = 0; j < sizeof a; j++)
                ever[j] |= a[j];
        }
        for (unsigned char byte : ever)
            EXPECT_NE(byte, 0);
    });
}

TEST(random, bytes_beyond_the_count_are_left_alone) {
    run([] {
        unsigned char bytes[16] = {};
        os_get_random_bytes(bytes + 4, 8);
        os_get_random_bytes(bytes, 0);
        for (int i : {0, 1, 2, 3, 12, 13, 14, 15})
            EXPECT_EQ(bytes[i], 0);
    });
}

}  // namespace contract::task_tests
