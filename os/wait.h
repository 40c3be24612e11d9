// os/wait.h: wait queues
// SPDX-License-Identifier: GPL-2.0-only
//
// The one way to sleep for a condition, which loses no wake-up:
//     os_prepare_to_wait(&head, &entry, mode);      queued and marked as sleeping
//     while (!condition) { release locks; os_schedule(); take locks; os_prepare_to_wait(...); }
//     os_finish_wait(&head, &entry);                running and off the queue
// A wake-up that comes after the prepare makes the next os_schedule return at once.
#ifndef TRAK_OS_WAIT_H
#define TRAK_OS_WAIT_H

#include <os_embedded.h> /* os_wait_queue_head, os_wait_entry */

#include "os/base.h"

OS_BEGIN

enum os_wait_mode { OS_WAIT_UNINTERRUPTIBLE = 0, OS_WAIT_INTERRUPTIBLE = 1 };

void os_init_waitqueue_head(struct os_wait_queue_head *head);
void os_init_wait_entry(struct os_wait_entry *entry); /* entry of the calling task */

/* Puts the entry on the queue (nothing if it is there) as an ordinary waiter and marks the
 * calling task as sleeping. Context: atomic. */
void os_prepare_to_wait(struct os_wait_queue_head *head, struct os_wait_entry *entry,
                        enum os_wait_mode mode);
/* Marks the task running and takes the entry off. Context: atomic. */
void os_finish_wait(struct os_wait_queue_head *head, struct os_wait_entry *entry);

/* Wakes every ordinary waiter. Context: any. */
void os_wake_up(struct os_wait_queue_head *head);

/* True when the calling task was sent a signal (an interruptible sleep then ends early). */
bool os_signal_pending(void);

OS_END

#endif
