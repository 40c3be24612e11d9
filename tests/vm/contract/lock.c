// tests/vm/contract/lock.c: os/lock.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/lock.h"

#include <linux/irqflags.h>

#include "os/task.h"
#include "tests/vm/contract/contract.h"

enum { THREADS = 4, ROUNDS = 20000 };

static const struct os_lock_class some_class = {.name = "contract", .rank = 1};
static const struct os_lock_class inner_class = {"contract inner", 2};

static struct {
    struct os_spinlock lock;
    int sum; /* plain: only the lock keeps its steps apart */
    int holders;
    bool overlapped;
} counted;

static void count_up(void *arg) {
    int i;

    for (i = 0; i < ROUNDS; i++) {
        os_spin_lock(&counted.lock);
        if (counted.holders++ != 0)
            counted.overlapped = true;
        WRITE_ONCE(counted.sum, READ_ONCE(counted.sum) + 1);
        counted.holders--;
        os_spin_unlock(&counted.lock);
    }
}

static void a_spin_lock_lets_one_in_at_a_time(void) {
    struct contract_thread threads[THREADS];
    int i, started = 0;

    memset(&counted, 0, sizeof(counted));
    os_spin_lock_init(&counted.lock, &some_class);
    for (i = 0; i < THREADS; i++) {
        if (!EXPECT(contract_start(&threads[i], count_up, NULL) > 0))
            break;
        started++;
    }
    for (i = 0; i < started; i++)
        contract_join(&threads[i]);
    EXPECT(counted.sum == started * ROUNDS);
    EXPECT(!counted.overlapped);
}

static void irqsave_keeps_interrupts_off_until_restored(void) {
    struct os_spinlock outer, inner;
    unsigned long flags, more;

    os_spin_lock_init(&outer, &some_class);
    os_spin_lock_init(&inner, &inner_class);
    EXPECT(!irqs_disabled());
    flags = os_spin_lock_irqsave(&outer);
    EXPECT(irqs_disabled());
    more = os_spin_lock_irqsave(&inner);
    os_spin_unlock_irqrestore(&inner, more);
    EXPECT(irqs_disabled());
    os_spin_unlock_irqrestore(&outer, flags);
    EXPECT(!irqs_disabled());
}

struct passing {
    struct os_semaphore sema;
    int passed;
};

static void pass(void *arg) {
    struct passing *passing = arg;

    os_down(&passing->sema);
    WRITE_ONCE(passing->passed, 1);
}

static void let_one_in(void *arg) {
    os_up(arg);
}

static void a_semaphore_lets_as_many_in_as_it_counts(void) {
    struct contract_thread thread;
    struct passing passing = {.passed = 0};
    int i;

    os_sema_init(&passing.sema, 2);
    os_down(&passing.sema);
    os_down(&passing.sema);
    ASSERT(contract_start(&thread, pass, &passing) > 0);
    for (i = 0; i < 100; i++)
        os_yield();
    EXPECT(READ_ONCE(passing.passed) == 0);
    contract_in_interrupt(let_one_in, &passing.sema);
    contract_join(&thread);
    EXPECT(passing.passed == 1);
}

struct waiting {
    struct os_completion done;
    struct os_spinlock lock;
    int through;
};

static void wait(void *arg) {
    struct waiting *waiting = arg;

    os_wait_for_completion(&waiting->done);
    os_spin_lock(&waiting->lock);
    waiting->through++;
    os_spin_unlock(&waiting->lock);
}

static bool one_is_through(void *arg) {
    return READ_ONCE(((struct waiting *)arg)->through) == 1;
}

static void each_complete_lets_one_waiter_through(void) {
    struct contract_thread first, second;
    struct waiting waiting = {.through = 0};
    int i;

    os_init_completion(&waiting.done);
    os_spin_lock_init(&waiting.lock, &some_class);
    ASSERT(contract_start(&first, wait, &waiting) > 0);
    ASSERT(contract_start(&second, wait, &waiting) > 0);
    os_complete(&waiting.done);
    EXPECT(contract_eventually(one_is_through, &waiting));
    for (i = 0; i < 100; i++)
        os_yield();
    EXPECT(waiting.through == 1);
    os_complete(&waiting.done);
    contract_join(&first);
    contract_join(&second);
    EXPECT(waiting.through == 2);
}

static void finish(void *arg) {
    os_complete(arg);
}

static void a_completion_from_interrupt_context_is_remembered(void) {
    struct os_completion done;

    os_init_completion(&done);
    contract_in_interrupt(finish, &done);
    os_wait_for_completion(&done);
}

const struct contract_test lock_tests[] = {
    CONTRACT(lock, a_spin_lock_lets_one_in_at_a_time),
    CONTRACT(lock, irqsave_keeps_interrupts_off_until_restored),
    CONTRACT(lock, a_semaphore_lets_as_many_in_as_it_counts),
    CONTRACT(lock, each_complete_lets_one_waiter_through),
    CONTRACT(lock, a_completion_from_interrupt_context_is_remembered),
    {},
};
