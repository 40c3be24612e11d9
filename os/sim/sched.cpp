// os/sim/sched.cpp: which task runs next, and when the machine stands still
// SPDX-License-Identifier: GPL-2.0-only
//
// Runnable     tasks in Kernel::runnable, the running one among them. Who waits is in no list of the
//              scheduler but in that of what it waits for.
// Idle         takes interrupts when nobody else does; a candidate while a disk has work.
// Time         moves 1 us at a point, 1 ms at a yield; with nobody to run it jumps to the next timer.
// Pollers      (wait_until) are asked again only after something else has run.
// Deadlock     nobody is runnable, no disk has work, no timer runs, no poller is content.
#include <cstring>

#include "os/sim/kernel.h"

namespace sim {
namespace {

constexpr std::uint64_t kIdleJumpUs = 10'000;
constexpr unsigned kMaxPollRounds = 12'000;  // two minutes of jumps
constexpr std::uint64_t kMaxEndingSteps = 2'000'000;

std::vector<os_task *> g_free_tasks;

void remove_runnable(os_task *task) {
    Kernel &k = kernel();
    os_task *last = k.runnable.back();
    k.runnable[static_cast<std::size_t>(task->run_index)] = last;
    last->run_index = task->run_index;
    k.runnable.pop_back();
    task->run_index = -1;
}

void expire_timers() {
    Kernel &k = kernel();
    for (std::size_t i = 0; i < k.timers.size();) {
        if (k.timers[i].at_us > k.now_us) {
            i++;
            continue;
        }
        os_task *task = k.timers[i].task;
        k.timers[i] = k.timers.back();
        k.timers.pop_back();
        make_runnable(task);
    }
}

bool jump_to_next_timer() {
    Kernel &k = kernel();
    if (k.timers.empty())
        return false;
    std::uint64_t next = UINT64_MAX;
    for (const Timer &timer : k.timers)
        next = timer.at_us < next ? timer.at_us : next;
    if (next > k.now_us)
        k.now_us = next;
    expire_timers();
    return true;
}

// A poller whose condition may hold by now, else null.
os_task *ready_poller() {
    Kernel &k = kernel();
    std::size_t n = k.pollers.size();
    if (n == 0)
        return nullptr;
    std::size_t from = k.rng.below(n);
    for (std::size_t i = 0; i < n; i++) {
        std::size_t at = (from + i) % n;
        os_task *task = k.pollers[at];
        if (task->polled_at == k.progress)
            continue;
        k.pollers[at] = k.pollers.back();
        k.pollers.pop_back();
        task->wait = Wait::kNone;
        task->run_index = static_cast<int>(k.runnable.size());
        k.runnable.push_back(task);
        return task;
    }
    return nullptr;
}

// Nobody runs and no disk has work: lets time pass, or ends the boot.
void stand_still() {
    Kernel &k = kernel();
    if (jump_to_next_timer())
        return;
    if (!k.pollers.empty() && ++k.poll_rounds <= kMaxPollRounds) {
        k.now_us += kIdleJumpUs;
        k.progress++;
        return;
    }
    if (k.processes == 0)
        end_boot(Ending::kDone);
    fail("deadlock: every task sleeps%s", k.held.empty() ? "" : " (requests lie on a held disk)");
}

os_task *pick_next() {
    Kernel &k = kernel();
    for (;;) {
        bool interrupts =
            !k.pending.empty() && k.idle->run_index < 0 && k.idle->wait == Wait::kNone;
        std::size_t n = k.runnable.size();
        if (!k.pollers.empty() && (n == 0 || k.rng.below(n + 1) == 0)) {
            if (os_task *task = ready_poller())
                return task;
        }
        if (n == 0 && !interrupts) {
            stand_still();
            continue;
        }
        if (interrupts && (n == 0 || (k.rng.next() & k.irq_mask) == 0))
            return k.idle;
        return n == 1 ? k.runnable[0] : k.runnable[k.rng.below(n)];
    }
}

void switch_to(os_task *task) {
    Kernel &k = kernel();
    if (task == k.current)
        return;
    k.lonely_yields = 0;
    os_task *from = k.current;
    k.current = task;
    k.trace = (k.trace ^ static_cast<std::uint64_t>(task->pid)) * 0x100000001b3u;
    fibre_switch(from ? from->fibre : k.main, task->fibre);
}

void count_step(Kernel &k) {
    if (!k.current->polling) {
        k.progress++;
        k.poll_rounds = 0;
    }
    if (++k.steps >= k.options.max_steps)
        fail("livelock: %llu scheduling points", static_cast<unsigned long long>(k.steps));
    if (k.cut_at && k.steps >= k.cut_at)
        end_boot(Ending::kPowerCut);
    if (k.processes == 0 && k.steps - k.ending_since > kMaxEndingSteps)
        fail("kernel threads go on running after the last process ended");
    k.now_us++;
    if (!k.timers.empty())
        expire_timers();
}

void idle_main(void *) {
    for (;;) {
        // Runnable only in the middle of an interrupt: at this point it is there for the asking.
        Kernel &k = kernel();
        make_runnable(k.current);
        irq_deliver();
        remove_runnable(k.current);
        switch_to(pick_next());
    }
}

void task_main(void *arg) {
    auto *task = static_cast<os_task *>(arg);
    if (task->kernel) {
        task->thread_fn(task->thread_arg);
    } else {
        try {
            task->process_fn();
        } catch (...) {
            kernel().thrown = std::current_exception();
        }
        if (kernel().thrown)
            end_boot(Ending::kThrown);
    }
    task_end();
}

}  // namespace

void point() {
    Kernel &k = kernel();
    count_step(k);
    os_task &task = *k.current;
    std::uint64_t r = k.rng.next();
    k.trace = (k.trace ^ r) * 0x100000001b3u;
    if (!k.pending.empty() && !task.in_irq && task.irq_off == 0 && (r & k.irq_mask) == 0)
        irq_deliver();
    if (((r >> 32) & k.preempt_mask) == 0)
        switch_to(pick_next());
}

void give_way(std::uint64_t us) {
    Kernel &k = kernel();
    count_step(k);
    k.now_us += us;
    if (!k.timers.empty())
        expire_timers();
    switch_to(pick_next());
}

void block(Wait wait, const void *on) {
    Kernel &k = kernel();
    os_task *task = k.current;
    task->wait = wait;
    task->wait_on = on;
    task->wait_since = k.steps;
    if (task->run_index >= 0)
        remove_runnable(task);
    switch_to(pick_next());
}

void make_runnable(os_task *task) {
    Kernel &k = kernel();
    k.progress++;
    task->wait = Wait::kNone;
    task->wait_on = nullptr;
    if (task->run_index >= 0)
        return;
    task->run_index = static_cast<int>(k.runnable.size());
    k.runnable.push_back(task);
}

void wait_in(os_sim_wait_list &list, Wait wait, const void *on) {
    os_task *task = &self();
    task->wait_next = nullptr;
    if (list.last)
        list.last->wait_next = task;
    else
        list.first = task;
    list.last = task;
    block(wait, on);
}

bool wake_one(os_sim_wait_list &list) {
    os_task *task = list.first;
    if (!task)
        return false;
    list.first = task->wait_next;
    if (!list.first)
        list.last = nullptr;
    make_runnable(task);
    return true;
}

void wake_all(os_sim_wait_list &list) {
    while (wake_one(list)) {
    }
}

void mutex_lock(Mutex &mutex, const void *what) {
    point();
    if (mutex.boot != kernel().boot)
        mutex = Mutex{nullptr, {}, kernel().boot};
    if (mutex.owner == &self())
        fail("a task waits for a mutex that it holds itself");
    while (mutex.owner)
        wait_in(mutex.waiters, Wait::kMutex, what);
    mutex.owner = &self();
}

void mutex_unlock(Mutex &mutex) {
    if (mutex.owner != &self())
        fail("a mutex is released by a task that does not hold it");
    mutex.owner = nullptr;
    wake_one(mutex.waiters);
    point();
}

os_task *new_task(const char *name, bool is_kernel) {
    Kernel &k = kernel();
    os_task *task;
    if (g_free_tasks.empty()) {
        task = new os_task;
    } else {
        task = g_free_tasks.back();
        g_free_tasks.pop_back();
        void *tsan = task->fibre.tsan;
        *task = os_task{};
        task->fibre.tsan = tsan;
    }
    task->pid = k.next_pid++;
    std::snprintf(task->comm, sizeof task->comm, "%s", name);
    task->kernel = is_kernel;
    k.tasks.push_back(task);
    bool is_idle = !k.idle && is_kernel;
    fibre_start(task->fibre, is_idle ? idle_main : task_main, task);
    if (!is_idle)
        make_runnable(task);
    return task;
}

void task_end() {
    Kernel &k = kernel();
    os_task *task = k.current;
    check_depth(*task, Depth{}, "a task ended");
    task->ended = true;
    task->process_fn = nullptr;
    wake_all(task->joiners);
    if (task->kernel)
        k.threads--;
    else if (--k.processes == 0)
        k.ending_since = k.steps;
    block(Wait::kNone, nullptr);
    fail("an ended task ran");
}

void run_tasks() {
    switch_to(pick_next());
}

void drop_tasks() {
    Kernel &k = kernel();
    for (os_task *task : k.tasks) {
        fibre_drop(task->fibre);
        task->process_fn = nullptr;
        g_free_tasks.push_back(task);
    }
    k.tasks.clear();
}

}  // namespace sim
