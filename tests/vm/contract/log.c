// tests/vm/contract/log.c: os/log.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/log.h"

#include <linux/err.h>

#include "tests/vm/contract/contract.h"

static void a_record_has_the_level_that_its_text_begins_with(void) {
    struct file *kmsg = contract_log_open();

    ASSERT(!IS_ERR(kmsg) && contract_user_page());
    os_printk("<3>ERROR: %s %d%s", "contract text", 42, "\n");
    os_printk("<6>%s\n", "contract detail");
    EXPECT(contract_log_has(kmsg, 3, "ERROR: contract text 42"));
    EXPECT(contract_log_has(kmsg, 6, "contract detail"));
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
