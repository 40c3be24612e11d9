// tests/unit/user/uaccess_test.cpp: the record's window and the memory of another process
// SPDX-License-Identifier: GPL-2.0-only
#include "os/uaccess.h"

#include <sys/mman.h>
#include <sys/wait.h>

#include "os/base.h"
#include "user_testing.h"

namespace {

using user::Caller;
using user::CallerScope;
using user_testing::Bytes;
using user_testing::pattern;

constexpr std::size_t kPage = OS_PAGE_SIZE;

// A process with three pages at a known address: writable, read-only, absent; ends with its pipe.
class OtherProcess {
  public:
    OtherProcess() {
        base_ = static_cast<char *>(
            mmap(nullptr, 3 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        memset(base_, 'w', kPage);
        memset(base_ + kPage, 'r', kPage);
        mprotect(base_ + kPage, kPage, PROT_READ);
        munmap(base_ + 2 * kPage, kPage);
        EXPECT_EQ(pipe2(end_, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) {
            char byte;
            close(end_[1]);
            _exit(read(end_[0], &byte, 1) == 0 ? 0 : 1);
        }
    }
    void finish() {
        close(end_[1]);
        end_[1] = -1;
        waitpid(pid_, nullptr, 0);
        finished_ = true;
    }
    ~OtherProcess() {
        if (!finished_)
            finish();
        close(end_[0]);
        munmap(base_, 2 * kPage);
    }
    pid_t pid() const { return pid_; }
    os_uaddr at(std::size_t offset) const { return reinterpret_cast<os_uaddr>(base_) + offset; }

  private:
    char *base_;
    pid_t pid_;
    int end_[2];
    bool finished_ = false;
};

TEST(user_uaccess, ranges_must_lie_below_the_address_limit_without_wrapping) {
    EXPECT_TRUE(os_access_ok(OS_VERIFY_READ, 0x7ffffffff000 - 10, 10));
    EXPECT_FALSE(os_access_ok(OS_VERIFY_WRITE, 0x7ffffffff000 - 10, 11));
    EXPECT_FALSE(os_access_ok(OS_VERIFY_READ, UINT64_MAX - 5, 10));
    EXPECT_FALSE(os_access_ok(OS_VERIFY_READ, 0, SIZE_MAX));
    EXPECT_TRUE(os_access_ok(OS_VERIFY_READ, 0, 0));
}

TEST(user_uaccess, without_a_caller_nothing_is_reachable) {
    char byte = 1;
    EXPECT_EQ(os_copy_from_user(&byte, 0x1000, 1), 1u);
    EXPECT_EQ(os_copy_to_user(0x1000, &byte, 1), 1u);
}

TEST(user_uaccess, addresses_in_the_record_are_served_from_the_window) {
    Bytes window = pattern(100, 1);
    Bytes before = window;
    CallerScope scope(Caller{0, 0x5000, window});
    Bytes got(40);
    EXPECT_EQ(os_copy_from_user(got.data(), 0x5000 + 60, 40), 0u);
    EXPECT_EQ(got, Bytes(before.begin() + 60, before.end()));
    EXPECT_EQ(os_copy_to_user(0x5000, "record", 6), 0u);
    EXPECT_EQ(memcmp(window.data(), "record", 6), 0);
    EXPECT_EQ(os_copy_from_user(got.data(), 0x5000 + 90, 20), 10u);  // the rest has no process
    EXPECT_EQ(os_copy_to_user(0x5000 - 1, "xy", 2), 2u);
}

TEST(user_uaccess, the_memory_of_another_process_is_read_and_written) {
    OtherProcess other;
    CallerScope scope(Caller{other.pid(), 0, {}});
    EXPECT_EQ(os_copy_to_user(other.at(10), "hello", 5), 0u);
    char got[8] = {};
    EXPECT_EQ(os_copy_from_user(got, other.at(9), 7), 0u);
    EXPECT_STREQ(got, "whellow");
}

TEST(user_uaccess, what_could_not_be_copied_is_counted_to_the_page) {
    OtherProcess other;
    CallerScope scope(Caller{other.pid(), 0, {}});
    Bytes got(3 * kPage);
    EXPECT_EQ(os_copy_from_user(got.data(), other.at(kPage / 2), 2 * kPage), kPage / 2);
    EXPECT_EQ(got[0], 'w');
    EXPECT_EQ(got[kPage + kPage / 2 - 1], 'r');
    Bytes data = pattern(2 * kPage, 7);
    EXPECT_EQ(os_copy_to_user(other.at(100), data.data(), 2 * kPage), kPage + 100);
    Bytes back(kPage - 100);
    EXPECT_EQ(os_copy_from_user(back.data(), other.at(100), back.size()), 0u);
    EXPECT_EQ(back, Bytes(data.begin(), data.begin() + kPage - 100));
    EXPECT_EQ(os_copy_to_user(other.at(kPage), data.data(), 1), 1u);
    EXPECT_EQ(os_copy_from_user(got.data(), other.at(2 * kPage), 10), 10u);
}

TEST(user_uaccess, a_copy_across_the_edges_of_the_window_uses_both) {
    OtherProcess other;
    Bytes window(8, 'X');
    CallerScope scope(Caller{other.pid(), other.at(100), window});
    char got[16];
    EXPECT_EQ(os_copy_from_user(got, other.at(96), 16), 0u);
    EXPECT_EQ(std::string(got, 16), "wwwwXXXXXXXXwwww");
    EXPECT_EQ(os_copy_to_user(other.at(96), "0123456789abcdef", 16), 0u);
    EXPECT_EQ(std::string(window.begin(), window.end()), "456789ab");
    CallerScope inner(Caller{other.pid(), 0, {}});
    EXPECT_EQ(os_copy_from_user(got, other.at(96), 16), 0u);
    EXPECT_EQ(std::string(got, 16), "0123wwwwwwwwcdef");
}

TEST(user_uaccess, large_copies_go_through_whole) {
    constexpr std::size_t kSize = 5 << 20;
    Bytes theirs = pattern(kSize + 77, 3);  // the process is our own here
    CallerScope scope(Caller{getpid(), 0, {}});
    Bytes got(kSize);
    EXPECT_EQ(os_copy_from_user(got.data(), reinterpret_cast<os_uaddr>(theirs.data() + 77), kSize),
              0u);
    EXPECT_EQ(memcmp(got.data(), theirs.data() + 77, kSize), 0);
}

TEST(user_uaccess, a_process_that_is_gone_leaves_every_byte_uncopied) {
    OtherProcess other;
    CallerScope scope(Caller{other.pid(), 0, {}});
    other.finish();
    char got[100];
    EXPECT_EQ(os_copy_from_user(got, other.at(0), 100), 100u);
    EXPECT_EQ(os_copy_to_user(other.at(0), got, 100), 100u);
}

TEST(user_uaccess, the_outer_caller_is_back_when_the_inner_scope_ends) {
    Bytes outer(1, 'o'), inner(1, 'i');
    CallerScope first(Caller{0, 0x1000, outer});
    char got = 0;
    {
        CallerScope second(Caller{0, 0x1000, inner});
        EXPECT_EQ(os_copy_from_user(&got, 0x1000, 1), 0u);
        EXPECT_EQ(got, 'i');
    }
    EXPECT_EQ(os_copy_from_user(&got, 0x1000, 1), 0u);
    EXPECT_EQ(got, 'o');
}

}  // namespace
