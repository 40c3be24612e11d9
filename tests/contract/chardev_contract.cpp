// tests/contract/chardev_contract.cpp: what os/chardev.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <atomic>
#include <cstring>

#include "tests/contract/platform.h"

namespace contract::chardev_tests {

namespace {

struct Seen {
    std::atomic<std::uint32_t> cmd;
    std::atomic<unsigned long> arg;
    std::atomic<int> opens, releases;
    std::atomic<bool> in_interrupt;
};
Seen g_seen;

int on_ioctl(void *, void *, std::uint32_t cmd, unsigned long arg) {
    g_seen.cmd = cmd;
    g_seen.arg = arg;
    g_seen.in_interrupt = os_in_interrupt();
    return cmd == 1 ? 0 : cmd == 2 ? 22 : -EINVAL;
}

long on_read(void *, os_uaddr buf, std::size_t count, std::int64_t *) {
    return count < 3 || os_copy_to_user(buf, "abc", 3) ? -EFAULT : 3;
}

long on_write(void *, os_uaddr buf, std::size_t count, std::int64_t *) {
    char text[8];
    if (count > sizeof text || os_copy_from_user(text, buf, count))
        return -EFAULT;
    return static_cast<long>(count);
}

int on_open(void *, void *) {
    g_seen.opens++;
    return 0;
}

int on_release(void *, void *) {
    g_seen.releases++;
    return 0;
}

constexpr os_file_operations kAll{on_read, on_write, on_ioctl, on_open, on_release};

void clear_seen() {
    g_seen.cmd = 0;
    g_seen.arg = 0;
    g_seen.in_interrupt = true;
    g_seen.opens = g_seen.releases = 0;
}

}  // namespace

TEST(chardev, without_a_registration_there_is_no_device) {
    run([] {
        EXPECT_EQ(chr_ioctl(1, 0), -ENODEV);
        EXPECT_EQ(chr_read(user_alloc(8), 8), -ENODEV);
        EXPECT_EQ(chr_write(user_alloc(8), 8), -ENODEV);
    });
}

TEST(chardev, major_zero_gives_a_free_one) {
    run([] {
        int a = os_register_chrdev(0, "contract_a", &kAll);
        int b = os_register_chrdev(0, "contract_b", &kAll);
        ASSERT_GT(a, 0);
        ASSERT_GT(b, 0);
        EXPECT_NE(a, b);
        os_unregister_chrdev(static_cast<std::uint32_t>(b), "contract_b");
        os_unregister_chrdev(static_cast<std::uint32_t>(a), "contract_a");
    });
}

TEST(chardev, a_major_that_is_named_is_registered_with_result_zero) {
    run([] {
        ASSERT_EQ(os_register_chrdev(240, "contract", &kAll), 0);
        EXPECT_LT(os_register_chrdev(240, "other", &kAll), 0);
        os_unregister_chrdev(240, "contract");
        ASSERT_EQ(os_register_chrdev(240, "contract", &kAll), 0);
        os_unregister_chrdev(240, "contract");
        EXPECT_EQ(chr_ioctl(1, 0), -ENODEV);
    });
}

TEST(chardev, ioctl_reaches_the_driver_with_command_and_argument) {
    run([] {
        clear_seen();
        ASSERT_EQ(os_register_chrdev(240, "contract", &kAll), 0);
        os_uaddr addr = user_alloc(16);
        EXPECT_EQ(chr_ioctl(1, addr), 0);
        EXPECT_EQ(g_seen.cmd, 1u);
        EXPECT_EQ(g_seen.arg, addr);
        EXPECT_FALSE(g_seen.in_interrupt);
        EXPECT_EQ(chr_ioctl(0xc0044301u, addr), -EINVAL);
        EXPECT_EQ(g_seen.cmd, 0xc0044301u);
        os_unregister_chrdev(240, "contract");
    });
}

TEST(chardev, a_positive_result_of_ioctl_is_passed_on) {
    run([] {
        ASSERT_EQ(os_register_chrdev(240, "contract", &kAll), 0);
        EXPECT_EQ(chr_ioctl(2, 0), 22);
        os_unregister_chrdev(240, "contract");
    });
}

TEST(chardev, read_and_write_reach_the_memory_of_the_process) {
    run([] {
        ASSERT_EQ(os_register_chrdev(240, "contract", &kAll), 0);
        os_uaddr addr = user_alloc(8);
        EXPECT_EQ(chr_read(addr, 8), 3);
        EXPECT_EQ(std::memcmp(user_bytes(addr, 8).data(), "abc\0", 4), 0);
        EXPECT_EQ(chr_write(addr, 5), 5);
        EXPECT_EQ(chr_read(user_unmapped(), 8), -EFAULT);
        os_unregister_chrdev(240, "contract");
    });
}

TEST(chardev, each_open_has_its_release) {
    run([] {
        clear_seen();
        ASSERT_EQ(os_register_chrdev(240, "contract", &kAll), 0);
        for (int i = 0; i < 3; i++)
            (void)chr_ioctl(1, 0);
        eventually([] { return g_seen.releases == g_seen.opens; });
        EXPECT_GT(g_seen.opens, 0);
        os_unregister_chrdev(240, "contract");
    });
}

TEST(chardev, several_processes_call_at_once) {
    run([] {
        ASSERT_EQ(os_register_chrdev(240, "contract", &kAll), 0);
        Process *processes[4];
        for (Process *&process : processes)
            process = start([] {
                for (int i = 0; i < 10; i++)
                    EXPECT_EQ(chr_ioctl(1, 0), 0);
            });
        for (Process *process : processes)
            join(process);
        os_unregister_chrdev(240, "contract");
    });
}

}  // namespace contract::chardev_tests
