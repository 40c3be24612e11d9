// tests/contract/proc_contract.cpp: what os/proc.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <atomic>
#include <cstring>

#include "tests/contract/platform.h"

namespace contract::proc_tests {

namespace {

int give_text(char *page, char **, long, int count, int *eof, void *data) {
    EXPECT_GE(count, 16);
    *eof = 1;
    return os_snprintf(page, OS_PAGE_SIZE, "%s\n", static_cast<const char *>(data));
}

int fill_page(char *page, char **, long, int, int *eof, void *) {
    std::memset(page, 'p', OS_PAGE_SIZE);
    *eof = 1;
    return OS_PAGE_SIZE;
}

int refuse_read(char *, char **, long, int, int *eof, void *) {
    *eof = 1;
    return -EIO;
}

int take_text(void *, os_uaddr buffer, unsigned long count, void *data) {
    char text[64] = {};
    if (count >= sizeof text)
        return -EINVAL;
    if (os_copy_from_user(text, buffer, count))
        return -EFAULT;
    std::strcpy(static_cast<char *>(data), text);
    return static_cast<int>(count);
}

char g_text[64];

}  // namespace

TEST(proc, file_shows_what_the_callback_writes) {
    run([] {
        std::strcpy(g_text, "hello");
        os_proc_entry *entry = os_create_proc_entry("contract_file", 0444, nullptr);
        ASSERT_NE(entry, nullptr);
        os_proc_set_ops(entry, give_text, nullptr, g_text);
        std::string text;
        EXPECT_EQ(proc_read("contract_file", &text), 0);
        EXPECT_EQ(text, "hello\n");
        std::strcpy(g_text, "again");
        EXPECT_EQ(proc_read("contract_file", &text), 0);
        EXPECT_EQ(text, "again\n");
        os_remove_proc_entry(entry);
        EXPECT_FALSE(proc_exists("contract_file"));
        EXPECT_EQ(proc_read("contract_file", &text), -ENOENT);
    });
}

TEST(proc, callback_may_fill_the_whole_page) {
    run([] {
        os_proc_entry *entry = os_create_proc_entry("contract_page", 0444, nullptr);
        ASSERT_NE(entry, nullptr);
        os_proc_set_ops(entry, fill_page, nullptr, nullptr);
        std::string text;
        EXPECT_EQ(proc_read("contract_page", &text), 0);
        EXPECT_EQ(text, std::string(OS_PAGE_SIZE, 'p'));
        os_remove_proc_entry(entry);
    });
}

TEST(proc, error_of_the_read_callback_reaches_the_reader) {
    run([] {
        os_proc_entry *entry = os_create_proc_entry("contract_bad", 0444, nullptr);
        ASSERT_NE(entry, nullptr);
        os_proc_set_ops(entry, refuse_read, nullptr, nullptr);
        std::string text;
        EXPECT_EQ(proc_read("contract_bad", &text), -EIO);
        os_remove_proc_entry(entry);
    });
}

TEST(proc, write_reaches_the_callback_as_memory_of_the_writer) {
    run([] {
        std::memset(g_text, 0, sizeof g_text);
        os_proc_entry *entry = os_create_proc_entry("contract_file", 0644, nullptr);
        ASSERT_NE(entry, nullptr);
        os_proc_set_ops(entry, give_text, take_text, g_text);
        EXPECT_EQ(proc_write("contract_file", "3\n"), 2);
        EXPECT_STREQ(g_text, "3\n");
        EXPECT_EQ(proc_write("contract_file", std::string(100, 'x')), -EINVAL);
        os_remove_proc_entry(entry);
    });
}

TEST(proc, folders_hold_files_and_tell_their_children) {
    run([] {
        os_proc_entry *folder = os_proc_mkdir("contract", nullptr);
        ASSERT_NE(folder, nullptr);
        EXPECT_EQ(os_proc_first_child(folder), nullptr);
        os_proc_entry *inner = os_proc_mkdir("inner", folder);
        os_proc_entry *file = os_create_proc_entry("file", 0444, folder);
        ASSERT_NE(inner, nullptr);
        ASSERT_NE(file, nullptr);
        EXPECT_STREQ(os_proc_name(folder), "contract");
        EXPECT_STREQ(os_proc_name(file), "file");
        EXPECT_EQ(os_proc_parent(file), folder);
        EXPECT_EQ(os_proc_parent(inner), folder);
        os_proc_entry *first = os_proc_first_child(folder);
        ASSERT_NE(first, nullptr);
        os_proc_entry *second = os_proc_next(first);
        ASSERT_NE(second, nullptr);
        EXPECT_NE(first, second);
        EXPECT_EQ(os_proc_next(second), nullptr);
        EXPECT_TRUE(proc_exists("contract/inner"));
        EXPECT_TRUE(proc_exists("contract/file"));
        os_remove_proc_entry(file);
        EXPECT_EQ(os_proc_first_child(folder), inner);
        EXPECT_EQ(os_proc_next(inner), nullptr);
        os_remove_proc_entry(inner);
        os_remove_proc_entry(folder);
        EXPECT_FALSE(proc_exists("contract"));
    });
}

TEST(proc, name_is_kept_by_the_entry) {
    run([] {
        char name[16] = "contract_name";
        os_proc_entry *entry = os_proc_mkdir(name, nullptr);
        ASSERT_NE(entry, nullptr);
        std::strcpy(name, "changed");
        EXPECT_STREQ(os_proc_name(entry), "contract_name");
        os_remove_proc_entry(entry);
    });
}

TEST(proc, removal_waits_for_the_callback_that_runs) {
    run([] {
        static std::atomic<bool> inside, leave, removed;
        inside = leave = removed = false;
        os_proc_entry *entry = os_create_proc_entry("contract_slow", 0444, nullptr);
        ASSERT_NE(entry, nullptr);
        os_proc_set_ops(
            entry,
            [](char *page, char **, long, int, int *eof, void *) {
                inside = true;
                while (!leave)
                    os_yield();
                EXPECT_FALSE(removed);
                *eof = 1;
                page[0] = 'x';
                return 1;
            },
            nullptr, nullptr);
        Process *reader = start([] {
            std::string text;
            EXPECT_EQ(proc_read("contract_slow", &text), 0);
        });
        eventually([] { return inside.load(); });
        Process *remover = start([entry] {
            os_remove_proc_entry(entry);
            removed = true;
        });
        linger();
        EXPECT_FALSE(removed);
        leave = true;
        join(remover);
        join(reader);
    });
}

}  // namespace contract::proc_tests
