// tests/vm/contract/2.6.32/log_reader.c: reading the kernel's log, which is one text in kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/err.h>
#include <linux/fs.h>

#include "tests/vm/contract/contract.h"

static char log_text[4 * PAGE_SIZE + 1]; /* what was said since the file was opened */
static size_t log_length;

/* Appends what there is to read, or drops it where there is no room. */
static void read_all(struct file *kmsg) {
    char __user *user = (char __user *)contract_user_page();
    ssize_t got;

    while ((got = kmsg->f_op->read(kmsg, user, PAGE_SIZE, &kmsg->f_pos)) > 0) {
        if (log_length + got > sizeof(log_text) - 1)
            log_length = 0;
        if (os_copy_from_user(log_text + log_length, (os_uaddr)user, got))
            return;
        log_length += got;
        log_text[log_length] = '\0';
    }
}

struct file *contract_log_open(void) {
    struct file *kmsg = filp_open("/proc/kmsg", O_RDONLY | O_NONBLOCK, 0);

    if (!IS_ERR(kmsg))
        read_all(kmsg);
    log_length = 0;
    log_text[0] = '\0';
    return kmsg;
}

/* A line is <LEVEL>TEXT, or <LEVEL>[TIME] TEXT. */
bool contract_log_has(struct file *kmsg, int level, const char *text) {
    const char *found, *line;

    read_all(kmsg);
    found = strstr(log_text, text);
    if (!found || found[strlen(text)] != '\n')
        return false;
    for (line = found; line > log_text && line[-1] != '\n'; line--)
        ;
    return line[0] == '<' && line[1] == '0' + level && line[2] == '>' &&
           (line + 3 == found || found[-1] == ' ');
}
