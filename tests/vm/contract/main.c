// tests/vm/contract/main.c: runs the contract suite when the module is loaded
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/init.h>
#include <linux/module.h>

#include "os/linux/block.h"
#include "tests/vm/contract/contract.h"

static const struct contract_test *const suites[] = {
    lock_tests, wait_tests, task_tests,    memory_tests, log_tests,  uaccess_tests, file_tests,
    path_tests, proc_tests, chardev_tests, bio_tests,    disk_tests, freeze_tests,  request_tests,
};

static unsigned int hold;
module_param(hold, uint, 0444);
MODULE_PARM_DESC(hold, "the number of a node to hold open, in place of the tests");

static char failure[200]; /* the first of the running test; empty while it holds */

bool contract_expect(bool holds, const char *file, int line, const char *condition) {
    if (!holds && !failure[0])
        snprintf(failure, sizeof(failure), "%s:%d: %s", file, line, condition);
    return holds;
}

static bool run_test(const struct contract_test *test) {
    failure[0] = '\0';
    test->run();
    if (failure[0])
        pr_err("trak_contract: not ok %s: %s\n", test->name, failure);
    else
        pr_info("trak_contract: ok %s\n", test->name);
    return !failure[0];
}

static int __init contract_init(void) {
    const struct contract_test *test;
    int all = 0, bad = 0;
    size_t i;
    int rc;

    if (hold)
        return contract_hold(hold);
    rc = trak_bio_init();
    if (rc)
        return rc;
    rc = trak_stat_init();
    if (rc) {
        trak_bio_exit();
        return rc;
    }
    for (i = 0; i < ARRAY_SIZE(suites); i++) {
        for (test = suites[i]; test->name; test++) {
            all++;
            bad += !run_test(test);
        }
    }
    pr_info("trak_contract: end: %d tests, %d failed\n", all, bad);
    return 0;
}

static void __exit contract_exit(void) {
    if (hold) {
        contract_let_go();
        return;
    }
    trak_disk_exit();
    trak_stat_exit();
    trak_bio_exit();
}

module_init(contract_init);
module_exit(contract_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Contracts of the seam, held against this kernel");
