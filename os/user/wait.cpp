// os/user/wait.cpp: wait queues
// SPDX-License-Identifier: GPL-2.0-only
//
// A task's state says whether it sleeps; os_prepare_to_wait sets it under the queue's lock, a wake-up
// resets it under the same lock, and os_schedule sleeps only while it is still set. So a wake-up
// between the two is never lost. os_finish_wait takes the lock too: once it returned, no waker holds
// on to the entry or to the task.
#include "os/wait.h"

#include <atomic>

#include "os/lock.h"
#include "os/user/sync.h"
#include "os/user/task.h"

extern "C" {

void os_init_waitqueue_head(os_wait_queue_head *head) {
    *head = {};
}

void os_init_wait_entry(os_wait_entry *entry) {
    *entry = {};
    entry->task = &user::current();
}

void os_prepare_to_wait(os_wait_queue_head *head, os_wait_entry *entry, os_wait_mode mode) {
    os_spin_lock(&head->lock);
    if (!entry->queued) {
        entry->queued = 1;
        entry->prev = head->last;
        entry->next = nullptr;
        if (head->last)
            head->last->next = entry;
        else
            head->first = entry;
        head->last = entry;
    }
    std::atomic_ref<std::uint32_t>(entry->task->state).store(static_cast<std::uint32_t>(mode) + 1);
    os_spin_unlock(&head->lock);
}

void os_finish_wait(os_wait_queue_head *head, os_wait_entry *entry) {
    os_spin_lock(&head->lock);
    std::atomic_ref<std::uint32_t>(entry->task->state).store(0);
    if (entry->queued) {
        (entry->prev ? entry->prev->next : head->first) = entry->next;
        (entry->next ? entry->next->prev : head->last) = entry->prev;
        entry->queued = 0;
    }
    os_spin_unlock(&head->lock);
}

void os_wake_up(os_wait_queue_head *head) {
    os_spin_lock(&head->lock);
    for (os_wait_entry *entry = head->first; entry; entry = entry->next)
        user::wake_task(*entry->task);
    os_spin_unlock(&head->lock);
}

bool os_signal_pending(void) {
    return user::current().signalled.load();
}

}  // extern "C"
