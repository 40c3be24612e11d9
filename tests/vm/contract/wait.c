// tests/vm/contract/wait.c: os/wait.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/wait.h"

#include <linux/sched.h>

#include "os/task.h"
#include "tests/vm/contract/contract.h"

static struct os_wait_queue_head head;

static void wake(void *arg) {
    os_wake_up(&head);
}

static void a_wake_up_after_the_prepare_is_not_lost(void) {
    struct os_wait_entry entry;

    os_init_waitqueue_head(&head);
    os_init_wait_entry(&entry);
    os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
    os_wake_up(&head);
    os_schedule();
    os_finish_wait(&head, &entry);
    EXPECT(task_is_running(current));
}

static void finish_leaves_the_task_running_and_the_queue_empty(void) {
    wait_queue_head_t *real = (wait_queue_head_t *)&head;
    struct os_wait_entry entry;

    os_init_waitqueue_head(&head);
    os_init_wait_entry(&entry);
    os_prepare_to_wait(&head, &entry, OS_WAIT_INTERRUPTIBLE);
    os_prepare_to_wait(&head, &entry, OS_WAIT_INTERRUPTIBLE);
    EXPECT(!list_empty(waiters_of(real)) && list_is_singular(waiters_of(real)));
    os_finish_wait(&head, &entry);
    EXPECT(task_is_running(current));
    EXPECT(list_empty(waiters_of(real)));
}

static int go, woken;

static void wait_for_go(void *arg) {
    struct os_wait_entry entry;

    os_init_wait_entry(&entry);
    os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
    while (!READ_ONCE(go)) {
        os_schedule();
        os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
    }
    os_finish_wait(&head, &entry);
    __atomic_fetch_add(&woken, 1, __ATOMIC_SEQ_CST);
}

static bool three_wait(void *arg) {
    const struct list_head *waiters = waiters_of((wait_queue_head_t *)&head);

    return waiters->next != waiters && waiters->next->next != waiters &&
           waiters->next->next->next != waiters;
}

static void one_wake_up_from_interrupt_context_wakes_every_waiter(void) {
    struct contract_thread threads[3];
    int i;

    os_init_waitqueue_head(&head);
    go = woken = 0;
    for (i = 0; i < 3; i++)
        ASSERT(contract_start(&threads[i], wait_for_go, NULL) > 0);
    EXPECT(contract_eventually(three_wait, NULL));
    EXPECT(woken == 0);
    WRITE_ONCE(go, 1);
    contract_in_interrupt(wake, NULL);
    for (i = 0; i < 3; i++)
        contract_join(&threads[i]);
    EXPECT(woken == 3);
}

static struct task_struct *sleeper;

static void sleep_for_long(void *arg) {
    WRITE_ONCE(sleeper, current);
    wait_for_go(arg);
}

static bool sleeper_is_idle(void *arg) {
    struct task_struct *task = READ_ONCE(sleeper);

    return task && READ_ONCE(task->__state) == TASK_IDLE;
}

static void a_thread_that_waits_is_neither_load_nor_a_hang(void) {
    struct contract_thread thread;

    os_init_waitqueue_head(&head);
    go = 0;
    sleeper = NULL;
    ASSERT(contract_start(&thread, sleep_for_long, NULL) > 0);
    EXPECT(contract_eventually(sleeper_is_idle, NULL));
    WRITE_ONCE(go, 1);
    os_wake_up(&head);
    contract_join(&thread);
}

static void no_signal_reaches_a_thread(void) {
    struct contract_thread thread;

    os_init_waitqueue_head(&head);
    go = 0;
    sleeper = NULL;
    ASSERT(contract_start(&thread, sleep_for_long, NULL) > 0);
    EXPECT(contract_eventually(sleeper_is_idle, NULL));
    send_sig(SIGTERM, sleeper, 0);
    EXPECT(!signal_pending(sleeper));
    WRITE_ONCE(go, 1);
    os_wake_up(&head);
    contract_join(&thread);
    EXPECT(!os_signal_pending());
}

const struct contract_test wait_tests[] = {
    CONTRACT(wait, a_wake_up_after_the_prepare_is_not_lost),
    CONTRACT(wait, finish_leaves_the_task_running_and_the_queue_empty),
    CONTRACT(wait, one_wake_up_from_interrupt_context_wakes_every_waiter),
    CONTRACT(wait, a_thread_that_waits_is_neither_load_nor_a_hang),
    CONTRACT(wait, no_signal_reaches_a_thread),
    {},
};
