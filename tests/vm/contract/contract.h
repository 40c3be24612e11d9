// tests/vm/contract/contract.h: what the files of the contract suite share
// SPDX-License-Identifier: GPL-2.0-only
//
// The contracts of os/*.h, held against a real kernel: the module trak_contract.ko is the glue and these
// tests, without the driver. All tests run in the process that loads it; the results are lines of the
// kernel's log: "trak_contract: ok NAME", or "trak_contract: not ok NAME: file:line: what doesn't hold".
#ifndef TRAK_TESTS_VM_CONTRACT_H
#define TRAK_TESTS_VM_CONTRACT_H

#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/string.h>

#include <compat_contract.h>

#include "os/bdev.h"
#include "os/lock.h"
#include "os/uaccess.h"

struct contract_test {
    const char *name;
    void (*run)(void);
};

/* Each file's tests, ended by an empty one. */
extern const struct contract_test bio_tests[], chardev_tests[], disk_tests[], file_tests[],
    freeze_tests[], lock_tests[], log_tests[], memory_tests[], path_tests[], proc_tests[],
    request_tests[], task_tests[], uaccess_tests[], wait_tests[];

#define CONTRACT(unit, what)                                                                       \
    { "contract." #unit "." #what, what }

/* Notes the failure; the test goes on (EXPECT) or returns (ASSERT). */
#define EXPECT(condition) contract_expect(!!(condition), __FILE__, __LINE__, #condition)
#define ASSERT(condition)                                                                          \
    do {                                                                                           \
        if (!EXPECT(condition))                                                                    \
            return;                                                                                \
    } while (0)
bool contract_expect(bool holds, const char *file, int line, const char *condition);

/* In place of the tests (parameter `hold`): opens a node and gives up what keeps its module; 0 or a negative
 * errno. And the end of that. */
int contract_hold(os_dev_t dev);
void contract_let_go(void);

/* A thread of os_kernel_thread that calls `body` and ends. */
struct contract_thread {
    void (*body)(void *arg);
    void *arg;
    struct os_completion exited;
};
int contract_start(struct contract_thread *thread, void (*body)(void *arg), void *arg);
void contract_join(struct contract_thread *thread);

/* Calls fn(arg) in interrupt context, and returns when it has returned. */
void contract_in_interrupt(void (*fn)(void *arg), void *arg);

/* True once condition(arg) holds; false after two minutes. */
bool contract_eventually(bool (*condition)(void *arg), void *arg);

/* Two pages of the loading process: the first can be read and written, the second can't. */
os_uaddr contract_user_page(void);

/* Closes a file for good before it returns, which a process would do on its way out of the kernel. */
void contract_close(struct file *file);

/* The kernel's log from its end on; whether a line of this level with this text has been added. */
struct file *contract_log_open(void);
bool contract_log_has(struct file *kmsg, int level, const char *text);

/* Reads and writes as a process does: through its own memory, in pieces of `piece` bytes at most. */
ssize_t contract_read(struct file *file, char *text, size_t size, size_t piece);
ssize_t contract_write(struct file *file, const char *text);

#endif
