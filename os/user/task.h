// os/user/task.h: what the platform knows of a task
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_USER_TASK_H
#define TRAK_OS_USER_TASK_H

#include <signal.h>

#include <atomic>
#include <cstdint>

#include "os/task.h"
#include "os/user/plug.h"
#include "os/user/user.h"

namespace user {
struct OwnRing;
}

// One per thread, made with the thread's first call, gone with the thread.
struct os_task {
    // 0 running, else os_wait_mode + 1. A futex: whoever sleeps in os_schedule sleeps on it.
    std::uint32_t state = 0;
    std::atomic<bool> signalled{false};
    int pid = 0;
    // The rest is the thread's own.
    unsigned spins_held = 0;
    bool in_interrupt = false;
    const user::Caller *caller = nullptr;
    // As it was when the task was first asked for it, or as os_daemonize set it; empty: not asked.
    char comm[OS_TASK_COMM_LEN] = {};
    user::Plug plug;
    user::OwnRing *own_ring = nullptr;
};

namespace user {

os_task &current();
// The task's sleep, if it is in one, ends. Any thread; the task must live.
void wake_task(os_task &task);
// A call that may sleep, made where it must not, is a programming error.
void may_sleep_here(const char *what);
// The same of a call that is about to wait for something outside the platform: what the thread holds
// back goes first.
void might_sleep(const char *what);
// Sleeps while *word holds `value`, as futex_wait; what the thread holds back goes first.
void sleep_on(std::uint32_t *word, std::uint32_t value);
// Threads started while it lives take no signal but the one that tests ask for stacks with: signals
// of the process are for its own threads.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t most;
        sigfillset(&most);
        sigdelset(&most, SIGUSR2);
        pthread_sigmask(SIG_SETMASK, &most, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

  private:
    sigset_t before_;
};
// Ends all threads of os_kernel_thread that are still there.
void join_kernel_threads();

}  // namespace user

#endif
