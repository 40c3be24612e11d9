// tests/vm/inject/spare.c: a module that keeps injected failures from functions that take none
// SPDX-License-Identifier: GPL-2.0-only
//
// A kernel with fault injection lets steps of a marked task fail. While such a task is in one of
// `functions` it is not marked: nothing that they call fails. `inner` and `outer` do the same for a call
// of `inner` that is made within `outer`. All are names of functions of the kernel or of a module that is
// loaded; a return probe stands at each.
//
// `counted` is the kernel's should_fail(attributes, size): each of a marked task's steps that may fail is
// made to count as one, whatever its size, so that a test can let the first, the second and each later
// one fail. (As the kernel has it, one that follows a larger one can't be told from that by bytes.)
//
// `spared` counts the calls that a marked task made, so that a test knows what was left out. None goes
// unnoticed: a probe that could not follow a call says so as the module goes.
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/kprobes.h>
#include <linux/module.h>
#include <linux/sched.h>

enum { most_functions = 8, most_at_once = 32 };

static char *functions[most_functions];
static unsigned int function_cnt;
module_param_array(functions, charp, &function_cnt, 0444);
MODULE_PARM_DESC(functions, "functions in which nothing fails");
static char *inner;
module_param(inner, charp, 0444);
MODULE_PARM_DESC(inner, "function in which nothing fails where outer calls it");
static char *outer;
module_param(outer, charp, 0444);
MODULE_PARM_DESC(outer, "function that calls inner");
static char *counted;
module_param(counted, charp, 0444);
MODULE_PARM_DESC(counted, "function whose second argument is made 1");
static uint spared;
module_param(spared, uint, 0444);
MODULE_PARM_DESC(spared, "calls in which nothing failed");

static struct kretprobe probes[most_functions + 2];
static unsigned int probe_cnt;
static struct kprobe counter;
/* The marked task that is in `outer`: the test has one at a time. */
static struct task_struct *in_outer;

/* A call's data: whether its end has something to take back. (What follows calls on every task: a kernel
 * of the 2.6.32 series loses a record for each call that is not followed.) */
static bool *is_ours(struct kretprobe_instance *call) {
    return (bool *)call->data;
}

static int spare_begin(struct kretprobe_instance *call, struct pt_regs *regs) {
    *is_ours(call) = current->make_it_fail != 0;
    if (*is_ours(call)) {
        current->make_it_fail = 0;
        spared++;
    }
    return 0;
}

static int spare_end(struct kretprobe_instance *call, struct pt_regs *regs) {
    if (*is_ours(call))
        current->make_it_fail = 1;
    return 0;
}

static int inner_begin(struct kretprobe_instance *call, struct pt_regs *regs) {
    *is_ours(call) = false;
    return in_outer == current ? spare_begin(call, regs) : 0;
}

static int outer_begin(struct kretprobe_instance *call, struct pt_regs *regs) {
    *is_ours(call) = current->make_it_fail != 0;
    if (*is_ours(call))
        in_outer = current;
    return 0;
}

static int outer_end(struct kretprobe_instance *call, struct pt_regs *regs) {
    if (*is_ours(call))
        in_outer = NULL;
    return 0;
}

/* The second argument, as x86-64 passes it. */
static int count_one(struct kprobe *probe, struct pt_regs *regs) {
    if (current->make_it_fail)
        regs->si = 1;
    return 0;
}

static int watch(const char *name, kretprobe_handler_t begin, kretprobe_handler_t end) {
    struct kretprobe *probe = &probes[probe_cnt];
    int rc;

    probe->kp.symbol_name = name;
    probe->entry_handler = begin;
    probe->handler = end;
    probe->maxactive = most_at_once;
    probe->data_size = sizeof(bool);
    rc = register_kretprobe(probe);
    if (rc != 0)
        pr_err("trak_spare: %s can't be watched: %d\n", name, rc);
    else
        probe_cnt++;
    return rc;
}

static void unwatch(void) {
    if (counter.symbol_name)
        unregister_kprobe(&counter);
    while (probe_cnt > 0) {
        struct kretprobe *probe = &probes[--probe_cnt];

        unregister_kretprobe(probe);
        WARN(probe->nmissed != 0, "trak_spare: %s was missed\n", probe->kp.symbol_name);
    }
}

static int count(void) {
    int rc;

    counter.symbol_name = counted;
    counter.pre_handler = count_one;
    rc = register_kprobe(&counter);
    if (rc != 0)
        counter.symbol_name = NULL;
    return rc;
}

static int __init spare_init(void) {
    unsigned int i;
    int rc = 0;

    for (i = 0; i < function_cnt && rc == 0; i++)
        rc = watch(functions[i], spare_begin, spare_end);
    if (rc == 0 && inner && outer) {
        rc = watch(outer, outer_begin, outer_end);
        if (rc == 0)
            rc = watch(inner, inner_begin, spare_end);
    }
    if (rc == 0 && counted)
        rc = count();
    if (rc != 0)
        unwatch();
    return rc;
}

static void __exit spare_exit(void) {
    unwatch();
}

module_init(spare_init);
module_exit(spare_exit);

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Keeps injected failures from functions that take none");
