// os/sim/describe.cpp: what every task was doing, for the text of a failure
// SPDX-License-Identifier: GPL-2.0-only
#include "os/sim/kernel.h"

namespace sim {
namespace {

std::string describe_queue(const os_task &task) {
    auto *head = static_cast<const os_wait_queue_head *>(task.wait_on);
    std::string text = "a wait queue";
    for (const os_wait_entry *entry = head->first; entry; entry = entry->next) {
        if (entry->task != &task)
            continue;
        if (head->woken_empty_at && head->woken_empty_at <= entry->queued_at)
            text += format(" (queued at step %llu; lost wake-up? the queue was last woken at step "
                           "%llu, with nobody on it)",
                           static_cast<unsigned long long>(entry->queued_at),
                           static_cast<unsigned long long>(head->woken_empty_at));
    }
    return text;
}

std::string describe_wait(const os_task &task) {
    switch (task.wait) {
    case Wait::kNone:
        return task.run_index >= 0 ? "runnable" : "nothing";
    case Wait::kQueue:
        return describe_queue(task);
    case Wait::kSpin: {
        auto *lock = static_cast<const os_spinlock *>(task.wait_on);
        return format("spin lock %s of %s", lock->cls->name,
                      lock->owner ? lock->owner->comm : "nobody");
    }
    case Wait::kSemaphore:
        return "a semaphore";
    case Wait::kCompletion:
        return "a completion";
    case Wait::kMutex:
        return "a mutex of the kernel (a folder's, an opened device's)";
    case Wait::kTimer:
        return "a timer";
    case Wait::kPoll:
        return "a condition (wait_until)";
    case Wait::kJoin:
        return format("the end of %s", static_cast<const os_task *>(task.wait_on)->comm);
    case Wait::kRequest:
        return "a request to a device";
    case Wait::kFrozen:
        return "a frozen file system";
    case Wait::kRemoval:
        return "the last caller of a /proc entry";
    }
    return "?";
}

}  // namespace

std::string describe_tasks() {
    const Kernel &k = kernel();
    std::string text;
    for (const os_task *task : k.tasks) {
        if (task->ended || (task == k.idle && !task->in_irq))
            continue;
        text += format("\n  %s (pid %d%s): %s", task->comm, task->pid,
                       task->in_irq ? ", in an interrupt" : "", describe_wait(*task).c_str());
        for (unsigned i = 0; i < task->held_count; i++)
            text += format(i ? ", %s" : "; holds %s", task->held[i].cls->name);
        if (task->wait != Wait::kNone)
            text += format("; since step %llu", static_cast<unsigned long long>(task->wait_since));
    }
    return text;
}

}  // namespace sim
