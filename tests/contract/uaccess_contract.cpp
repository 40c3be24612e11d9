// tests/contract/uaccess_contract.cpp: what os/uaccess.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <cstring>

#include "tests/contract/platform.h"

namespace contract::uaccess_tests {

TEST(uaccess, bytes_go_both_ways) {
    run([] {
        os_uaddr addr = user_alloc(64);
        char text[64] = "from the driver";
        EXPECT_EQ(os_copy_to_user(addr, text, sizeof text), 0u);
        EXPECT_EQ(std::memcmp(user_bytes(addr, 64).data(), text, 64), 0);
        std::memcpy(user_bytes(addr, 64).data(), "from the process", 17);
        EXPECT_EQ(os_copy_from_user(text, addr, 17), 0u);
        EXPECT_STREQ(text, "from the process");
    });
}

TEST(uaccess, a_part_of_a_buffer_is_reached_and_the_rest_left_alone) {
    run([] {
        os_uaddr addr = user_alloc(16);
        EXPECT_EQ(os_copy_to_user(addr + 5, "abc", 3), 0u);
        auto bytes = user_bytes(addr, 16);
        EXPECT_EQ(bytes[4], 0);
        EXPECT_EQ(bytes[5], 'a');
        EXPECT_EQ(bytes[7], 'c');
        EXPECT_EQ(bytes[8], 0);
    });
}

TEST(uaccess, nothing_is_copied_of_size_zero) {
    run([] {
        char byte = 'x';
        EXPECT_EQ(os_copy_to_user(user_unmapped(), &byte, 0), 0u);
        EXPECT_EQ(os_copy_from_user(&byte, user_unmapped(), 0), 0u);
        EXPECT_EQ(byte, 'x');
    });
}

TEST(uaccess, unmapped_memory_can_not_be_copied) {
    run([] {
        char bytes[100] = {};
        os_uaddr nowhere = user_unmapped();
        EXPECT_EQ(os_copy_to_user(nowhere, bytes, sizeof bytes), sizeof bytes);
        EXPECT_EQ(os_copy_from_user(bytes, nowhere, sizeof bytes), sizeof bytes);
        EXPECT_EQ(os_copy_from_user(bytes, 0, sizeof bytes), sizeof bytes);
    });
}

TEST(uaccess, read_only_memory_is_read_and_not_written) {
    run([] {
        os_uaddr addr = user_alloc(OS_PAGE_SIZE);
        user_bytes(addr, OS_PAGE_SIZE)[0] = 7;
        user_read_only(addr, OS_PAGE_SIZE);
        unsigned char byte = 0;
        EXPECT_EQ(os_copy_from_user(&byte, addr, 1), 0u);
        EXPECT_EQ(byte, 7);
        EXPECT_EQ(os_copy_to_user(addr, &byte, 1), 1u);
    });
}

TEST(uaccess, the_address_limit_is_checked_without_wrapping) {
    run([] {
        os_uaddr addr = user_alloc(OS_PAGE_SIZE);
        EXPECT_TRUE(os_access_ok(OS_VERIFY_READ, addr, OS_PAGE_SIZE));
        EXPECT_TRUE(os_access_ok(OS_VERIFY_WRITE, addr, OS_PAGE_SIZE));
        EXPECT_FALSE(os_access_ok(OS_VERIFY_READ, ~os_uaddr{0}, 1));
        EXPECT_FALSE(os_access_ok(OS_VERIFY_READ, ~os_uaddr{0} - 10, 100));
        EXPECT_FALSE(os_access_ok(OS_VERIFY_WRITE, addr, ~std::size_t{0}));
        EXPECT_FALSE(os_access_ok(OS_VERIFY_WRITE, os_uaddr{1} << 63, 1));
    });
}

TEST(uaccess, the_address_limit_says_nothing_about_mapped_pages) {
    run([] { EXPECT_TRUE(os_access_ok(OS_VERIFY_WRITE, user_unmapped(), OS_PAGE_SIZE)); });
}

TEST(uaccess, addresses_beyond_the_limit_can_not_be_copied) {
    run([] {
        char byte = 0;
        EXPECT_EQ(os_copy_to_user(~os_uaddr{0}, &byte, 1), 1u);
        EXPECT_EQ(os_copy_from_user(&byte, os_uaddr{1} << 63, 1), 1u);
    });
}

}  // namespace contract::uaccess_tests
