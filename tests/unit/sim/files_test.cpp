// tests/unit/sim/files_test.cpp: the machine's files across power cuts, and their failures
// SPDX-License-Identifier: GPL-2.0-only
#include <cstring>
#include <set>

#include "os/file.h"
#include "tests/unit/sim/provoke.h"

namespace sim_tests::files {

using sim::Bytes;

constexpr int kNew = OS_O_RDWR | OS_O_CREAT;

os_file *open_file(const char *path, int flags) {
    os_file *file = os_filp_open(path, flags, 0600);
    EXPECT_FALSE(os_is_err(file)) << path;
    return file;
}

void put(os_file *file, std::int64_t pos, const std::string &text) {
    EXPECT_EQ(os_vfs_write(file, text.data(), text.size(), &pos), static_cast<long>(text.size()));
}

// What /data/f holds after the cut, over many seeds: "-" when there is no file.
std::set<std::string> after_cut(const char *before, const std::function<void()> &body) {
    std::set<std::string> seen;
    for (std::uint64_t seed = 1; seed <= 300; seed++) {
        Machine machine;
        if (before)
            machine.storage.write_file("/data/f", Bytes(before, before + std::strlen(before)));
        EXPECT_TRUE(machine.run_until_cut(seed, [&] {
            body();
            sim::power_cut();
        }));
        if (!machine.storage.exists("/data/f")) {
            seen.insert("-");
            continue;
        }
        Bytes bytes = machine.storage.read_file("/data/f");
        EXPECT_EQ(machine.storage.read_file_durable("/data/f"), bytes);
        std::string text(bytes.begin(), bytes.end());
        seen.insert(text.size() > 8 ? text.substr(0, 8) : text);
    }
    return seen;
}

using Texts = std::set<std::string>;
const std::string kZeroes3(3, '\0');

TEST(sim_files, what_was_not_synced_may_be_lost_in_part) {
    // Gone; made and empty; of full length with its data or without.
    EXPECT_EQ(after_cut(nullptr, [] { put(open_file("/data/f", kNew), 0, "abc"); }),
              (Texts{"-", "", "abc", kZeroes3}));
}

TEST(sim_files, what_was_synced_is_never_lost) {
    EXPECT_EQ(after_cut(nullptr,
                        [] {
                            os_file *file = open_file("/data/f", kNew);
                            put(file, 0, "abc");
                            EXPECT_EQ(os_vfs_fsync(file), 0);
                        }),
              (Texts{"abc"}));
}

TEST(sim_files, synchronous_writes_are_durable_when_they_return) {
    EXPECT_EQ(after_cut(nullptr, [] { put(open_file("/data/f", kNew | OS_O_SYNC), 0, "abc"); }),
              (Texts{"abc"}));
}

TEST(sim_files, a_rewrite_is_old_or_new_after_a_cut) {
    EXPECT_EQ(after_cut("old", [] { put(open_file("/data/f", OS_O_RDWR), 0, "new"); }),
              (Texts{"old", "new"}));
}

TEST(sim_files, the_latest_of_several_rewrites_need_not_win) {
    EXPECT_EQ(after_cut("old",
                        [] {
                            os_file *file = open_file("/data/f", OS_O_RDWR);
                            put(file, 0, "mid");
                            put(file, 0, "new");
                        }),
              (Texts{"old", "mid", "new"}));
}

TEST(sim_files, a_truncation_may_be_lost_and_takes_later_data_with_it) {
    EXPECT_EQ(after_cut("old", [] { put(open_file("/data/f", OS_O_RDWR | OS_O_TRUNC), 0, "new"); }),
              (Texts{"old", "", "new", kZeroes3}));
}

TEST(sim_files, a_truncation_that_was_synced_stays) {
    EXPECT_EQ(after_cut("old",
                        [] {
                            os_file *file = open_file("/data/f", OS_O_RDWR | OS_O_TRUNC);
                            EXPECT_EQ(os_vfs_fsync(file), 0);
                        }),
              (Texts{""}));
}

TEST(sim_files, a_sync_of_one_file_keeps_the_names_made_before) {
    EXPECT_EQ(after_cut(nullptr,
                        [] {
                            open_file("/data/f", kNew);
                            EXPECT_EQ(os_vfs_fsync(open_file("/data/g", kNew)), 0);
                        }),
              (Texts{""}));
}

TEST(sim_files, names_are_lost_from_the_latest_on) {
    for (std::uint64_t seed = 1; seed <= 200; seed++) {
        Machine machine;
        EXPECT_TRUE(machine.run_until_cut(seed, [] {
            open_file("/data/1", kNew);
            open_file("/data/2", kNew);
            open_file("/data/3", kNew);
            sim::power_cut();
        }));
        bool first = machine.storage.exists("/data/1");
        bool second = machine.storage.exists("/data/2");
        bool third = machine.storage.exists("/data/3");
        EXPECT_TRUE(first >= second && second >= third);
    }
}

TEST(sim_files, a_removal_may_be_lost) {
    EXPECT_EQ(after_cut("old",
                        [] {
                            os_parent *parent = os_path_parent("/data/f");
                            os_parent_lock(parent);
                            os_dentry *dentry = os_lookup_hash(parent);
                            EXPECT_EQ(os_vfs_unlink(parent, dentry), 0);
                            os_parent_unlock(parent);
                        }),
              (Texts{"-", "old"}));
}

TEST(sim_files, a_failed_sync_promises_nothing) {
    EXPECT_EQ(after_cut("old",
                        [] {
                            os_file *file = open_file("/data/f", OS_O_RDWR);
                            put(file, 0, "new");
                            sim::fail_nth(sim::Fault::kFlush, 1);
                            EXPECT_EQ(os_vfs_fsync(file), -EIO);
                        }),
              (Texts{"old", "new"}));
}

TEST(sim_files, a_cut_inside_a_synchronous_write_leaves_either_state) {
    Texts seen;
    for (std::uint64_t points = 1; points < 40; points++) {
        Machine machine;
        machine.storage.write_file("/data/f", Bytes{'o', 'l', 'd'});
        machine.run_until_cut(points, [&] {
            sim::power_cut_after(points);
            os_file *file = open_file("/data/f", OS_O_RDWR | OS_O_SYNC);
            put(file, 0, "new");
            EXPECT_EQ(os_filp_close(file), 0);
        });
        Bytes bytes = machine.storage.read_file("/data/f");
        seen.insert(std::string(bytes.begin(), bytes.end()));
    }
    EXPECT_EQ(seen, (Texts{"old", "new"}));
}

TEST(sim_files, a_full_file_system_takes_what_fits_and_then_enospc) {
    Machine machine;
    machine.storage.set_free_bytes("/data", 2 * OS_PAGE_SIZE);
    machine.run(options_of(1), [] {
        os_file *file = open_file("/data/f", kNew);
        std::vector<char> bytes(5 * OS_PAGE_SIZE, 'x');
        std::int64_t pos = 0;
        EXPECT_EQ(os_vfs_write(file, bytes.data(), bytes.size(), &pos), 2 * OS_PAGE_SIZE);
        EXPECT_EQ(os_vfs_write(file, bytes.data(), bytes.size(), &pos), -ENOSPC);
        pos = 0;
        EXPECT_EQ(os_vfs_write(file, bytes.data(), 10, &pos),
                  10);  // what is there can be rewritten
        EXPECT_EQ(os_filp_close(file), 0);
        file = open_file("/data/f", OS_O_RDWR | OS_O_TRUNC);  // gives the room back
        pos = 0;
        EXPECT_EQ(os_vfs_write(file, bytes.data(), OS_PAGE_SIZE, &pos), OS_PAGE_SIZE);
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

TEST(sim_files, a_read_only_file_system_can_be_read) {
    Machine machine;
    machine.storage.write_file("/data/f", Bytes{'x'});
    machine.storage.set_read_only("/data", true);
    machine.run(options_of(1), [] {
        EXPECT_EQ(os_ptr_err(os_filp_open("/data/f", OS_O_RDWR, 0)), -EROFS);
        EXPECT_EQ(os_ptr_err(os_filp_open("/data/f", OS_O_RDONLY | OS_O_TRUNC, 0)), -EROFS);
        EXPECT_EQ(os_ptr_err(os_filp_open("/data/new", kNew, 0600)), -EROFS);
        EXPECT_EQ(os_filp_close(open_file("/data/f", OS_O_RDONLY)), 0);
        os_parent *parent = os_path_parent("/data/f");
        os_parent_lock(parent);
        os_dentry *dentry = os_lookup_hash(parent);
        EXPECT_EQ(os_vfs_unlink(parent, dentry), -EROFS);
        os_dput(dentry);
        os_parent_unlock(parent);
        os_parent_put(parent);
    });
}

TEST(sim_files, a_path_fails_as_the_test_wants_it) {
    Machine machine;
    machine.storage.write_file("/data/f", Bytes{'x'});
    machine.storage.fail_path("/data/f", sim::Fault::kRead, EACCES);
    machine.run(options_of(1), [&] {
        os_file *file = open_file("/data/f", OS_O_RDONLY);
        char byte;
        std::int64_t pos = 0;
        EXPECT_EQ(os_vfs_read(file, &byte, 1, &pos), -EACCES);
        machine.storage.fail_path("/data/f", sim::Fault::kRead, 0);
        EXPECT_EQ(os_vfs_read(file, &byte, 1, &pos), 1);
        EXPECT_EQ(os_filp_close(file), 0);
        machine.storage.fail_path("/data/f", sim::Fault::kOpen, EBUSY);
        EXPECT_EQ(os_ptr_err(os_filp_open("/data/f", OS_O_RDONLY, 0)), -EBUSY);
        EXPECT_EQ(os_ptr_err(os_path_lookup("/data/f", 1)), -EBUSY);
    });
}

TEST(sim_files, the_mount_table_tells_what_lies_below_a_path) {
    Machine machine;
    machine.storage.mkdir("/data/sub/deep");
    machine.storage.mount("/data/sub", os_mkdev(8, 1));
    machine.run(options_of(1), [] {
        for (auto [path, dev] : {std::pair{"/data", os_dev_t{0}},
                                 {"/data/sub", os_mkdev(8, 1)},
                                 {"/data/sub/deep", os_mkdev(8, 1)}}) {
            os_dentry *dentry = os_path_lookup(path, 1);
            ASSERT_FALSE(os_is_err(dentry));
            EXPECT_EQ(os_dentry_sb_dev(dentry), dev) << path;
            os_dput(dentry);
        }
    });
}

TEST(sim_files, a_disk_has_its_special_file) {
    Machine machine;
    machine.run(options_of(1), [] {
        os_dentry *dentry = os_path_lookup("/dev/sda", 1);
        ASSERT_FALSE(os_is_err(dentry));
        EXPECT_EQ(os_dentry_mode(dentry) & OS_S_IFMT, static_cast<unsigned>(OS_S_IFBLK));
        EXPECT_EQ(os_dentry_rdev(dentry), kDisk);
        os_dput(dentry);
    });
}

TEST(sim_files, transfers_are_short_when_asked) {
    bool was_short = false;
    for (std::uint64_t seed = 1; seed <= 50; seed++) {
        Machine machine;
        sim::Options options = options_of(seed);
        options.short_transfers = true;
        machine.run(options, [&] {
            os_file *file = open_file("/data/f", kNew);
            char text[100] = {};
            std::int64_t pos = 0;
            long n = os_vfs_write(file, text, sizeof text, &pos);
            EXPECT_GE(n, 1);
            EXPECT_EQ(pos, n);
            was_short |= n < 100;
            EXPECT_EQ(os_filp_close(file), 0);
        });
    }
    EXPECT_TRUE(was_short);
}

TEST(sim_files, misuse_of_a_folder_lock_is_found) {
    EXPECT_SAYS(failure_of([] {
                    os_parent *parent = os_path_parent("/data/f");
                    ignore(os_lookup_hash(parent));
                }),
                "os_lookup_hash: the parent folder is not locked");
    EXPECT_SAYS(failure_of([] {
                    os_parent *parent = os_path_parent("/data/f");
                    os_parent_lock(parent);
                    os_parent_put(parent);
                }),
                "the folder is still locked");
    EXPECT_SAYS(failure_of([] {
                    os_parent *a = os_path_parent("/data/f"), *b = os_path_parent("/data/g");
                    os_parent_lock(a);
                    os_parent_lock(b);
                }),
                "waits for a mutex that it holds itself");
}

}  // namespace sim_tests::files
