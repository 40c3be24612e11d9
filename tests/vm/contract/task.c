// tests/vm/contract/task.c: os/task.h, os/time.h and os/random.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/task.h"

#include <linux/jiffies.h>
#include <linux/kthread.h>
#include <linux/ktime.h>
#include <linux/module.h>
#include <linux/utsname.h>

#include "os/random.h"
#include "os/time.h"
#include "tests/vm/contract/contract.h"

struct seen {
    int pid;
    struct os_task *task;
    char comm[OS_TASK_COMM_LEN];
    bool interrupt;
    struct os_completion exited;
};

static void look(void *arg) {
    struct seen *seen = arg;

    seen->pid = os_current_pid();
    seen->task = os_current();
    os_current_comm(seen->comm);
    seen->interrupt = os_in_interrupt();
}

static void a_thread_is_a_task_of_its_own(void) {
    struct contract_thread thread;
    struct seen seen = {};
    int pid = contract_start(&thread, look, &seen);

    ASSERT(pid > 0);
    contract_join(&thread);
    EXPECT(seen.pid == pid && pid != os_current_pid());
    EXPECT(seen.task && seen.task != os_current());
    EXPECT(strcmp(seen.comm, "contractd") == 0);
    EXPECT(!seen.interrupt);
}

static int long_named(void *arg) {
    struct seen *seen = arg;

    os_daemonize("a_name_of_more_than_fifteen");
    os_current_comm(seen->comm);
    os_complete_and_exit(&seen->exited, 0);
    return 0;
}

static void a_long_name_is_cut_and_terminated(void) {
    struct seen seen = {};

    os_init_completion(&seen.exited);
    ASSERT(os_kernel_thread(long_named, &seen, 0, "a_name_of_more_than_fifteen") > 0);
    os_wait_for_completion(&seen.exited);
    EXPECT(strcmp(seen.comm, "a_name_of_more_") == 0);
}

static void interrupt_context_is_told_from_a_process(void) {
    struct seen seen = {};

    contract_in_interrupt(look, &seen);
    EXPECT(seen.interrupt);
    EXPECT(!os_in_interrupt());
}

static void the_module_is_referred_to_until_the_reference_goes(void) {
    int before = module_refcount(THIS_MODULE);

    os_module_get();
    EXPECT(module_refcount(THIS_MODULE) == before + 1);
    os_module_put();
    EXPECT(module_refcount(THIS_MODULE) == before);
}

static void the_release_is_the_running_kernels(void) {
    EXPECT(strcmp(os_utsrelease(), utsname()->release) == 0);
}

static void ticks_are_milliseconds_and_never_go_back(void) {
    ktime_t start = ktime_get();
    uint64_t first = os_jiffies(), last = first, now;
    u64 raw;

    do {
        os_yield();
        raw = get_jiffies_64();
        now = os_jiffies();
        if (!EXPECT(now >= last) || !EXPECT(now >= raw * MSEC_PER_SEC / HZ))
            return;
        last = now;
    } while (now < first + 1000 && ktime_ms_delta(ktime_get(), start) < 120000);
    EXPECT(now >= first + 1000);
    EXPECT(ktime_ms_delta(ktime_get(), start) >= 900);
}

static void random_bytes_fill_the_whole_buffer(void) {
    unsigned char bytes[64], seen[64] = {};
    int round, i;

    for (round = 0; round < 64; round++) {
        memset(bytes, 0, sizeof(bytes));
        os_get_random_bytes(bytes, sizeof(bytes) - 1);
        EXPECT(bytes[sizeof(bytes) - 1] == 0);
        for (i = 0; i < sizeof(bytes); i++)
            seen[i] |= bytes[i];
    }
    for (i = 0; i < sizeof(bytes) - 1; i++)
        EXPECT(seen[i] != 0);
}

const struct contract_test task_tests[] = {
    CONTRACT(task, a_thread_is_a_task_of_its_own),
    CONTRACT(task, a_long_name_is_cut_and_terminated),
    CONTRACT(task, interrupt_context_is_told_from_a_process),
    CONTRACT(task, the_module_is_referred_to_until_the_reference_goes),
    CONTRACT(task, the_release_is_the_running_kernels),
    CONTRACT(time, ticks_are_milliseconds_and_never_go_back),
    CONTRACT(random, random_bytes_fill_the_whole_buffer),
    {},
};
