// tests/contract/log_contract.cpp: what os/log.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <cinttypes>
#include <cstring>

#include "tests/contract/platform.h"

namespace contract::log_tests {

namespace {

constexpr os_lock_class kClass{"contract log", 10};

bool logged(const std::string &line) {
    for (const std::string &entry : log())
        if (entry == line)
            return true;
    return false;
}

int call_vsnprintf(char *buf, std::size_t size, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int length = os_vsnprintf(buf, size, fmt, args);
    va_end(args);
    return length;
}

}  // namespace

TEST(log, printk_keeps_the_level_and_the_text) {
    run([] {
        os_printk("<6>contract: %d %s\n", 42, "words");
        os_printk("<3>ERROR: contract %lld\n", 1LL << 40);
        EXPECT_TRUE(logged("<6>contract: 42 words"));
        EXPECT_TRUE(logged("<3>ERROR: contract 1099511627776"));
    });
}

TEST(log, records_stand_in_the_order_of_one_task) {
    run([] {
        for (int i = 0; i < 20; i++)
            os_printk("<6>contract order %d\n", i);
        int next = 0;
        for (const std::string &line : log())
            if (line == "<6>contract order " + std::to_string(next))
                next++;
        EXPECT_EQ(next, 20);
    });
}

TEST(log, printk_works_under_a_spin_lock) {
    run([] {
        os_spinlock lock;
        os_spin_lock_init(&lock, &kClass);
        unsigned long flags = os_spin_lock_irqsave(&lock);
        os_printk("<6>contract: under a lock\n");
        os_spin_unlock_irqrestore(&lock, flags);
        EXPECT_TRUE(logged("<6>contract: under a lock"));
    });
}

TEST(log, snprintf_knows_the_conversions_of_the_driver) {
    run([] {
        char text[256];
        os_snprintf(text, sizeof text, "%d %i %u %x %X %o %c %s %%", -5, 6, 7u, 0xabu, 0xabu, 8u,
                    'z', "str");
        EXPECT_STREQ(text, "-5 6 7 ab AB 10 z str %");
        os_snprintf(text, sizeof text, "%ld %lu %lld %llu %llx", -1L, 2UL, -3LL, 1ULL << 63,
                    0x123456789abcdefULL);
        EXPECT_STREQ(text, "-1 2 -3 9223372036854775808 123456789abcdef");
        os_snprintf(text, sizeof text, "%zu %04d %5d|%-5d|%02x", std::size_t{9}, 42, 42, 42, 10u);
        EXPECT_STREQ(text, "9 0042    42|42   |0a");
        os_snprintf(text, sizeof text, "%.3s|%10s|%-10s|%#x", "abcdef", "right", "left", 255u);
        EXPECT_STREQ(text, "abc|     right|left      |0xff");
    });
}

TEST(log, snprintf_prints_pointers_in_some_form) {
    run([] {
        char text[64];
        int x = 0;
        EXPECT_GT(os_snprintf(text, sizeof text, "%p", static_cast<void *>(&x)), 0);
        EXPECT_STRNE(text, "");
    });
}

TEST(log, snprintf_cuts_terminates_and_tells_the_full_length) {
    run([] {
        char text[8];
        std::memset(text, '#', sizeof text);
        EXPECT_EQ(os_snprintf(text, 5, "%s", "abcdefghij"), 10);
        EXPECT_STREQ(text, "abcd");
        EXPECT_EQ(text[5], '#');
        EXPECT_EQ(os_snprintf(text, 1, "abc"), 3);
        EXPECT_STREQ(text, "");
        EXPECT_EQ(call_vsnprintf(text, sizeof text, "%d", 1234567), 7);
        EXPECT_STREQ(text, "1234567");
        EXPECT_EQ(call_vsnprintf(text, sizeof text, "%d", 12345678), 8);
        EXPECT_STREQ(text, "1234567");
    });
}

TEST(log, snprintf_of_size_zero_writes_nothing) {
    run([] {
        char untouched = '#';
        EXPECT_EQ(os_snprintf(&untouched, 0, "%s", "abc"), 3);
        EXPECT_EQ(untouched, '#');
    });
}

}  // namespace contract::log_tests
