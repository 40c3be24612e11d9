// tests/vm/contract/uaccess.c: os/uaccess.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/uaccess.h"

#include <linux/sched.h>

#include "tests/vm/contract/contract.h"

static void bytes_go_both_ways(void) {
    os_uaddr page = contract_user_page();
    char text[] = "there and back", back[sizeof(text)] = "";

    ASSERT(page);
    EXPECT(os_copy_to_user(page + 100, text, sizeof(text)) == 0);
    EXPECT(os_copy_from_user(back, page + 100, sizeof(back)) == 0);
    EXPECT(strcmp(text, back) == 0);
}

static void what_could_not_be_copied_is_told(void) {
    os_uaddr page = contract_user_page();
    char bytes[64] = "";

    ASSERT(page);
    EXPECT(os_copy_to_user(page + OS_PAGE_SIZE - 10, bytes, sizeof(bytes)) == sizeof(bytes) - 10);
    EXPECT(os_copy_from_user(bytes, page + OS_PAGE_SIZE - 10, sizeof(bytes)) == sizeof(bytes) - 10);
    EXPECT(os_copy_from_user(bytes, page + OS_PAGE_SIZE, sizeof(bytes)) == sizeof(bytes));
    EXPECT(os_copy_from_user(bytes, 0, sizeof(bytes)) == sizeof(bytes));
}

static void the_kernels_own_memory_is_out_of_reach(void) {
    char secret[16] = "secret", bytes[16] = "";

    EXPECT(os_copy_from_user(bytes, (os_uaddr)secret, sizeof(bytes)) == sizeof(bytes));
    EXPECT(os_copy_to_user((os_uaddr)secret, "changed", 8) == 8);
    EXPECT(strcmp(secret, "secret") == 0);
    EXPECT(!os_access_ok(OS_VERIFY_READ, (os_uaddr)secret, sizeof(secret)));
}

static void a_range_counts_only_below_the_limit_and_without_wrapping(void) {
    EXPECT(os_access_ok(OS_VERIFY_READ, 0x10000, 0x1000));
    EXPECT(os_access_ok(OS_VERIFY_WRITE, TASK_SIZE_MAX - 16, 16));
    EXPECT(!os_access_ok(OS_VERIFY_WRITE, TASK_SIZE_MAX - 16, 17));
    EXPECT(!os_access_ok(OS_VERIFY_READ, 0x10000, ~(size_t)0));
    EXPECT(!os_access_ok(OS_VERIFY_READ, ~(os_uaddr)0 - 8, 16));
}

const struct contract_test uaccess_tests[] = {
    CONTRACT(uaccess, bytes_go_both_ways),
    CONTRACT(uaccess, what_could_not_be_copied_is_told),
    CONTRACT(uaccess, the_kernels_own_memory_is_out_of_reach),
    CONTRACT(uaccess, a_range_counts_only_below_the_limit_and_without_wrapping),
    {},
};
