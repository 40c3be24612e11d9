// tests/vm/contract/helpers.c: threads, interrupts and user memory for the contract suite
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/completion.h>
#include <linux/delay.h>
#include <linux/err.h>
#include <linux/interrupt.h>
#include <linux/mm.h>
#include <linux/mman.h>
#include <linux/uaccess.h>

#include "os/file.h"
#include "os/task.h"
#include "tests/vm/contract/contract.h"

static int thread_main(void *arg) {
    struct contract_thread *thread = arg;

    os_daemonize("contractd");
    thread->body(thread->arg);
    os_complete_and_exit(&thread->exited, 0);
    return 0;
}

int contract_start(struct contract_thread *thread, void (*body)(void *arg), void *arg) {
    thread->body = body;
    thread->arg = arg;
    os_init_completion(&thread->exited);
    return os_kernel_thread(thread_main, thread, OS_CLONE_FS | OS_CLONE_FILES | OS_CLONE_SIGHAND,
                            "contractd");
}

void contract_join(struct contract_thread *thread) {
    os_wait_for_completion(&thread->exited);
}

struct interrupt {
    struct tasklet_struct tasklet;
    void (*fn)(void *arg);
    void *arg;
    struct completion done;
};

static void interrupt_main(struct tasklet_struct *tasklet) {
    struct interrupt *interrupt = container_of(tasklet, struct interrupt, tasklet);

    interrupt->fn(interrupt->arg);
    complete(&interrupt->done);
}

void contract_in_interrupt(void (*fn)(void *arg), void *arg) {
    struct interrupt interrupt = {.fn = fn, .arg = arg};

    init_completion(&interrupt.done);
    tasklet_setup(&interrupt.tasklet, interrupt_main);
    tasklet_schedule(&interrupt.tasklet);
    wait_for_completion(&interrupt.done);
    tasklet_kill(&interrupt.tasklet);
}

bool contract_eventually(bool (*condition)(void *arg), void *arg) {
    int i;

    for (i = 0; i < 12000; i++) {
        if (condition(arg))
            return true;
        msleep(10);
    }
    return false;
}

os_uaddr contract_user_page(void) {
    static unsigned long page;
    unsigned long hole;

    if (page)
        return page;
    page = vm_mmap(NULL, 0, 2 * PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, 0);
    if (IS_ERR_VALUE(page)) {
        page = 0;
        return 0;
    }
    /* Mapped over the second page, and forbidden: nothing else can come to lie there. */
    hole = vm_mmap(NULL, page + PAGE_SIZE, PAGE_SIZE, PROT_NONE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, 0);
    return hole == page + PAGE_SIZE ? page : 0;
}

static void close_here(void *file) {
    EXPECT(os_filp_close(file) == 0);
}

void contract_close(struct file *file) {
    struct contract_thread thread;

    if (EXPECT(contract_start(&thread, close_here, file) > 0))
        contract_join(&thread);
}

ssize_t contract_read(struct file *file, char *text, size_t size, size_t piece) {
    char __user *user = (char __user *)contract_user_page();
    size_t total = 0;
    ssize_t got = 0;

    if (!user || !file->f_op->read)
        return -EINVAL;
    while (total < size - 1) {
        got = file->f_op->read(file, user, min3(piece, size - 1 - total, (size_t)PAGE_SIZE),
                               &file->f_pos);
        if (got <= 0)
            break;
        if (copy_from_user(text + total, user, got))
            return -EFAULT;
        total += got;
    }
    text[total] = '\0';
    return got < 0 ? got : total;
}

ssize_t contract_write(struct file *file, const char *text) {
    char __user *user = (char __user *)contract_user_page();
    size_t size = strlen(text);

    if (!user || !file->f_op->write || copy_to_user(user, text, size))
        return -EINVAL;
    return file->f_op->write(file, user, size, &file->f_pos);
}
