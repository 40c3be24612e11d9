// tests/vm/contract/newer/log_reader.c: reading the kernel's log record by record
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/slab.h>

#include "tests/vm/contract/contract.h"

struct file *contract_log_open(void) {
    struct file *kmsg = filp_open("/dev/kmsg", O_RDONLY | O_NONBLOCK, 0);

    if (!IS_ERR(kmsg))
        vfs_llseek(kmsg, 0, SEEK_END);
    return kmsg;
}

/* A record is LEVEL,NUMBER,TIME,FLAGS;TEXT. */
static bool is_record(const char *record, int level, const char *text) {
    const char *from = strchr(record, ';');

    return record[0] == '0' + level && record[1] == ',' && from &&
           strncmp(from + 1, text, strlen(text)) == 0 && from[1 + strlen(text)] == '\n';
}

bool contract_log_has(struct file *kmsg, int level, const char *text) {
    char __user *user = (char __user *)contract_user_page();
    char *record = kmalloc(2 * PAGE_SIZE, GFP_KERNEL);
    bool found = false;
    int i;

    for (i = 0; record && i < 1000 && !found; i++) {
        ssize_t got = kmsg->f_op->read(kmsg, user, PAGE_SIZE, &kmsg->f_pos);

        if (got <= 0 || os_copy_from_user(record, (os_uaddr)user, got))
            break;
        record[got] = '\0';
        found = is_record(record, level, text);
    }
    kfree(record);
    return found;
}
