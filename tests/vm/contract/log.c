// tests/vm/contract/log.c: os/log.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/log.h"

#include <linux/err.h>
#include <linux/slab.h>

#include "tests/vm/contract/contract.h"

// The record of the kernel's log that holds the text, from the file that is at its end before.
static bool find_record(struct file *kmsg, char *record, const char *text) {
    loff_t *pos = &kmsg->f_pos;
    int i;

    for (i = 0; i < 1000; i++) {
        char __user *user = (char __user *)contract_user_page();
        ssize_t got = kmsg->f_op->read(kmsg, user, PAGE_SIZE, pos);

        if (got <= 0 || os_copy_from_user(record, (os_uaddr)user, got))
            return false;
        record[got] = '\0';
        if (strstr(record, text))
            return true;
    }
    return false;
}

static void a_record_has_the_level_that_its_text_begins_with(void) {
    struct file *kmsg = filp_open("/dev/kmsg", O_RDONLY | O_NONBLOCK, 0);
    char *record = kmalloc(2 * PAGE_SIZE, GFP_KERNEL);

    if (EXPECT(!IS_ERR(kmsg)) && EXPECT(record) && EXPECT(contract_user_page())) {
        vfs_llseek(kmsg, 0, SEEK_END);
        os_printk("<3>ERROR: %s %d%s", "contract text", 42, "\n");
        os_printk("<6>%s\n", "contract detail");
        EXPECT(find_record(kmsg, record, ";ERROR: contract text 42\n"));
        EXPECT(strncmp(record, "3,", 2) == 0);
        EXPECT(find_record(kmsg, record, ";contract detail\n"));
        EXPECT(strncmp(record, "6,", 2) == 0);
    }
    kfree(record);
    if (!IS_ERR(kmsg))
        contract_close(kmsg);
}

static void a_text_too_long_is_cut_and_its_length_told(void) {
    char text[8] = "xxxxxxx";

    EXPECT(os_snprintf(text, sizeof(text), "%s-%04d", "abcdef", 7) == 11);
    EXPECT(strcmp(text, "abcdef-") == 0);
    EXPECT(os_snprintf(text, sizeof(text), "%llx %zu", 0xabcull, (size_t)5) == 5);
    EXPECT(strcmp(text, "abc 5") == 0);
}

const struct contract_test log_tests[] = {
    CONTRACT(log, a_record_has_the_level_that_its_text_begins_with),
    CONTRACT(log, a_text_too_long_is_cut_and_its_length_told),
    {},
};
