// os/sim/task.cpp: tasks, threads and processes
// SPDX-License-Identifier: GPL-2.0-only
#include "os/task.h"

#include <cstring>

#include "os/sim/kernel.h"

namespace sim {
namespace {

constexpr std::uint64_t kYieldUs = 1000;
constexpr std::uint64_t kMaxLonelyYields = 1'000'000;  // sixteen minutes of yields

}  // namespace

Process *spawn(const std::string &name, std::function<void()> fn) {
    os_task *task = new_task(name.c_str(), false);
    task->process_fn = std::move(fn);
    kernel().processes++;
    point();
    return reinterpret_cast<Process *>(task);
}

void join(Process *process) {
    auto *task = reinterpret_cast<os_task *>(process);
    point();
    while (!task->ended)
        wait_in(task->joiners, Wait::kJoin, task);
}

void signal(Process *process) {
    auto *task = reinterpret_cast<os_task *>(process);
    task->signalled = true;
    if (task->wait == Wait::kQueue && task->marked_interruptible) {
        task->marked = false;
        make_runnable(task);
    }
    point();
}

void yield() {
    os_yield();
}

void sleep_ms(unsigned ms) {
    might_sleep("sleep_ms");
    Kernel &k = kernel();
    k.timers.push_back({k.now_us + std::uint64_t{ms} * 1000, k.current});
    block(Wait::kTimer, nullptr);
}

std::uint64_t random(std::uint64_t below) {
    return kernel().rng.below(below);
}

void wait_until(const std::function<bool()> &condition) {
    might_sleep("wait_until");
    Kernel &k = kernel();
    os_task *task = k.current;
    point();
    for (;;) {
        task->polling = true;
        bool holds = condition();
        task->polling = false;
        if (holds)
            return;
        task->polled_at = k.progress;
        k.pollers.push_back(task);
        block(Wait::kPoll, nullptr);
    }
}

}  // namespace sim

using namespace sim;

extern "C" {

void os_yield(void) {
    might_sleep("os_yield");
    if (++kernel().lonely_yields > kMaxLonelyYields)
        fail("livelock: one task yields for ever, every other task sleeps");
    give_way(kYieldUs);
}

void os_cond_resched(void) {
    might_sleep("os_cond_resched");
    point();
}

void os_schedule(void) {
    os_task *task = &self();
    bool marked = task->marked;
    task->marked = false;  // what might_sleep refuses elsewhere is the purpose here
    might_sleep("os_schedule");
    if (!marked) {
        give_way(0);
        return;
    }
    if (task->marked_interruptible && task->signalled && !task->daemonized)
        return;
    task->marked = true;
    block(Wait::kQueue, task->marked_head);
    task->marked = false;
}

struct os_task *os_current(void) {
    return &self();
}

int os_current_pid(void) {
    return self().pid;
}

void os_current_comm(char name[OS_TASK_COMM_LEN]) {
    std::memcpy(name, self().comm, OS_TASK_COMM_LEN);
}

bool os_in_interrupt(void) {
    return self().in_irq;
}

bool os_signal_pending(void) {
    return self().signalled && !self().daemonized;
}

int os_kernel_thread(int (*fn)(void *arg), void *arg, unsigned long clone_flags, const char *name) {
    (void)clone_flags;
    (void)name;  // os_daemonize says it
    might_sleep("os_kernel_thread");
    point();
    if (fault(Fault::kOpen))
        return -ENOMEM;
    os_task *task = new_task(self().comm, true);
    task->thread_fn = fn;
    task->thread_arg = arg;
    kernel().threads++;
    int pid = task->pid;
    point();
    return pid;
}

void os_daemonize(const char *name) {
    might_sleep("os_daemonize");
    os_task &task = self();
    if (!task.kernel)
        fail("os_daemonize is called by a process");
    std::snprintf(task.comm, sizeof task.comm, "%s", name);
    task.daemonized = true;
    point();
}

void os_complete_and_exit(struct os_completion *completion, long code) {
    (void)code;
    might_sleep("os_complete_and_exit");
    if (!self().kernel)
        fail("os_complete_and_exit is called by a process");
    if (completion)
        os_complete(completion);
    task_end();
}

void os_module_get(void) {
    kernel().module_references++;
}

void os_module_put(void) {
    if (--kernel().module_references < 0)
        fail("os_module_put without os_module_get");
}

const char *os_utsrelease(void) {
    return "2.6.32-sim";
}

}  // extern "C"
