// os/sim/waits.cpp: wait queues
// SPDX-License-Identifier: GPL-2.0-only
#include "os/wait.h"

#include "os/sim/kernel.h"

using namespace sim;

namespace {

constexpr std::uint32_t kHeadMagic = 0x5b1a4ead;
constexpr std::uint32_t kEntryMagic = 0x5b1ae41d;

void check(const os_wait_queue_head *head, const char *function) {
    if (head->magic != kHeadMagic)
        fail("%s: the wait queue was not initialised or is gone", function);
}

void check(const os_wait_entry *entry, const char *function) {
    if (entry->magic != kEntryMagic)
        fail("%s: the wait entry was not initialised", function);
    if (entry->task != &self() || self().in_irq)
        fail("%s: the wait entry belongs to %s", function, entry->task->comm);
}

void append(os_wait_queue_head *head, os_wait_entry *entry) {
    entry->head = head;
    entry->next = nullptr;
    entry->prev = head->last;
    if (head->last)
        head->last->next = entry;
    else
        head->first = entry;
    head->last = entry;
    entry->queued_at = kernel().steps;
    entry->task->queued_entries++;
}

void take_off(os_wait_entry *entry) {
    os_wait_queue_head *head = entry->head;
    (entry->prev ? entry->prev->next : head->first) = entry->next;
    (entry->next ? entry->next->prev : head->last) = entry->prev;
    entry->head = nullptr;
    entry->task->queued_entries--;
}

}  // namespace

extern "C" {

void os_init_waitqueue_head(struct os_wait_queue_head *head) {
    *head = os_wait_queue_head{};
    head->magic = kHeadMagic;
}

void os_init_wait_entry(struct os_wait_entry *entry) {
    *entry = os_wait_entry{};
    entry->magic = kEntryMagic;
    entry->task = &self();
}

void os_prepare_to_wait(struct os_wait_queue_head *head, struct os_wait_entry *entry,
                        enum os_wait_mode mode) {
    point();
    check(head, "os_prepare_to_wait");
    check(entry, "os_prepare_to_wait");
    if (entry->head && entry->head != head)
        fail("os_prepare_to_wait: the entry stands on another wait queue");
    if (!entry->head)
        append(head, entry);
    os_task &task = self();
    task.marked = true;
    task.marked_interruptible = mode == OS_WAIT_INTERRUPTIBLE;
    task.marked_head = head;
    point();
}

void os_finish_wait(struct os_wait_queue_head *head, struct os_wait_entry *entry) {
    check(head, "os_finish_wait");
    check(entry, "os_finish_wait");
    if (entry->head && entry->head != head)
        fail("os_finish_wait: the entry stands on another wait queue");
    self().marked = false;
    if (entry->head)
        take_off(entry);
    point();
}

void os_wake_up(struct os_wait_queue_head *head) {
    point();
    check(head, "os_wake_up");
    if (!head->first)
        head->woken_empty_at = kernel().steps;
    for (os_wait_entry *entry = head->first; entry; entry = entry->next) {
        os_task *task = entry->task;
        task->marked = false;
        if (task->wait == Wait::kQueue)
            make_runnable(task);
    }
    point();
}

}  // extern "C"
