// os/user/task.cpp: tasks are threads
// SPDX-License-Identifier: GPL-2.0-only
#include "os/user/task.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>

#include "os/lock.h"
#include "os/user/own_io.h"
#include "os/user/sync.h"
#include "os/wait.h"

namespace user {

namespace {

// A thread of os_kernel_thread. The list owns it; joined when it is reaped.
struct KernelThread {
    pthread_t handle{};
    int (*fn)(void *) = nullptr;
    void *arg = nullptr;
    int pid = 0;
    bool ended = false;
};

struct KernelThreads {
    Mutex mutex;
    Condition changed;
    std::list<KernelThread> list USER_GUARDED_BY(mutex);
};

KernelThreads &kernel_threads() {
    static KernelThreads *all = new KernelThreads;  // outlives them, in an exit without a stop too
    return *all;
}

std::atomic<int> references{0};

void *run_kernel_thread(void *p) {
    KernelThread *thread = static_cast<KernelThread *>(p);
    KernelThreads &all = kernel_threads();
    {
        Guard held(all.mutex);
        thread->pid = current().pid;
        all.changed.notify_all();
    }
    current().plug.holds = true;
    thread->fn(thread->arg);
    current().plug.holds = false;
    plug_pull();
    Guard held(all.mutex);
    thread->ended = true;
    return nullptr;
}

// Joins those that are at their end, or all.
void reap(bool every_one) {
    KernelThreads &all = kernel_threads();
    std::list<KernelThread> gone;
    {
        Guard held(all.mutex);
        for (auto it = all.list.begin(); it != all.list.end();) {
            auto next = std::next(it);
            if (it->ended || every_one)
                gone.splice(gone.end(), all.list, it);
            it = next;
        }
    }
    for (KernelThread &thread : gone)
        pthread_join(thread.handle, nullptr);
}

}  // namespace

os_task &current() {
    thread_local os_task task;
    if (task.pid == 0)
        task.pid = static_cast<int>(syscall(SYS_gettid));
    return task;
}

void wake_task(os_task &task) {
    std::atomic_ref<std::uint32_t> state(task.state);
    if (state.load() != 0 && state.exchange(0) != 0)
        futex_wake(&task.state, INT_MAX);
}

void may_sleep_here(const char *what) {
    const os_task &task = current();
    if (task.spins_held || task.in_interrupt)
        os_bug("os/user", 0, what);
}

void might_sleep(const char *what) {
    may_sleep_here(what);
    plug_pull();
}

void sleep_on(std::uint32_t *word, std::uint32_t value) {
    plug_pull();
    if (!own_sleep_on(word, value))
        futex_wait(word, value);
}

void join_kernel_threads() {
    reap(true);
}

int module_references() {
    return references.load();
}

CallerScope::CallerScope(const Caller &caller) : caller_(caller), outer_(current().caller) {
    current().caller = &caller_;
    current().signalled.store(false);
}

CallerScope::~CallerScope() {
    current().caller = outer_;
    current().signalled.store(false);
}

void send_signal(os_task *task) {
    task->signalled.store(true);
    std::atomic_ref<std::uint32_t> state(task->state);
    std::uint32_t sleeping = OS_WAIT_INTERRUPTIBLE + 1;
    if (state.compare_exchange_strong(sleeping, 0))
        futex_wake(&task->state, INT_MAX);
}

}  // namespace user

using user::current;

extern "C" {

void os_bug(const char *file, int line, const char *condition) {
    fprintf(stderr, "BUG: %s at %s:%d\n", condition, file, line);
    user::thaw_all();
    abort();
}

os_task *os_current(void) {
    return &current();
}

int os_current_pid(void) {
    return current().pid;
}

void os_current_comm(char name[OS_TASK_COMM_LEN]) {
    // Every request under a snapshot asks: that must not cost a system call.
    os_task &task = current();
    if (task.comm[0] == '\0')
        prctl(PR_GET_NAME, task.comm);
    memcpy(name, task.comm, OS_TASK_COMM_LEN);
}

bool os_in_interrupt(void) {
    return current().in_interrupt;
}

void os_schedule(void) {
    user::may_sleep_here("os_schedule");
    os_task &task = current();
    std::atomic_ref<std::uint32_t> state(task.state);
    if (state.load() == 0) {
        os_yield();
        return;
    }
    for (std::uint32_t now = state.load(); now != 0; now = state.load()) {
        if (now == OS_WAIT_INTERRUPTIBLE + 1 && task.signalled.load()) {
            state.store(0);
            return;
        }
        user::sleep_on(&task.state, now);
    }
}

void os_yield(void) {
    user::plug_pull();
    user::own_serve();
    sched_yield();
}

/* Threads are preempted here; there is nothing to give back. */
void os_cond_resched(void) {}

int os_kernel_thread(int (*fn)(void *arg), void *arg, unsigned long, const char *) {
    user::reap(false);
    user::KernelThreads &all = user::kernel_threads();
    user::Guard held(all.mutex);
    all.list.emplace_back();
    user::KernelThread &thread = all.list.back();
    thread.fn = fn;
    thread.arg = arg;
    int err;
    {
        user::SignalsBlocked blocked;
        err = pthread_create(&thread.handle, nullptr, user::run_kernel_thread, &thread);
    }
    if (err) {
        all.list.pop_back();
        return -err;
    }
    // The list's nodes stay where they are, and a thread is reaped only once it has its pid.
    while (thread.pid == 0)
        all.changed.wait(all.mutex);
    return thread.pid;
}

void os_daemonize(const char *name) {
    char comm[OS_TASK_COMM_LEN] = {};
    strncpy(comm, name, sizeof(comm) - 1);
    prctl(PR_SET_NAME, comm);
    memcpy(current().comm, comm, sizeof(comm));
}

void os_complete_and_exit(os_completion *completion, long) {
    user::plug_pull();
    os_complete(completion);
}

void os_module_get(void) {
    user::references.fetch_add(1);
}

void os_module_put(void) {
    user::references.fetch_sub(1);
}

const char *os_utsrelease(void) {
    static const utsname name = [] {
        utsname u{};
        uname(&u);
        return u;
    }();
    return name.release;
}

}  // extern "C"
