// tests/unit/utils/path_test.cpp: look-ups, the device below a path, special files
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/module/params.h"
#include "driver/utils/trak_utils.h"
#include "tests/support/sim_run.h"

namespace {

// A disk (8, 1) whose file system is mounted on /mnt, one without a block device on /run.
void with_tree(const std::function<void(sim::Storage &)> &fn) {
    sim::Storage storage;
    storage.add_disk("sda1", os_mkdev(8, 1), 1 << 20, 512);
    storage.add_disk("sda2", os_mkdev(8, 2), 1 << 20, 512);
    storage.mount("/", os_mkdev(8, 2));
    storage.mkdir("/mnt/bmp");
    storage.mkdir("/run/lock");
    storage.mount("/mnt", os_mkdev(8, 1));
    storage.mount("/run", 0);
    storage.write_file("/mnt/bmp/file", {});
    storage.symlink("/run/lock", "/mnt/link");
    sim_run::boot(storage, [&] { fn(storage); });
}

TEST(path, lookup_of_a_relative_path_is_refused) {
    with_tree([](sim::Storage &) {
        os_dentry *dentry = trak_get_file_dentry("mnt/bmp", 0);
        ASSERT_TRUE(os_is_err(dentry));
        EXPECT_EQ(os_ptr_err(dentry), -EINVAL);
        EXPECT_LOGGED_ERROR(
            "trak_get_file_dentry(): Can't lookup mnt/bmp: must be an absolute path.");
        EXPECT_EQ(os_ptr_err(trak_get_file_dentry("", 0)), -EINVAL);
    });
}

TEST(path, lookup_without_a_path_is_a_bug) {
    EXPECT_NE(sim_run::failure_of([] { (void)trak_get_file_dentry(nullptr, 0); }), "");
}

TEST(path, lookup_of_a_missing_entry_is_an_error_or_nothing) {
    with_tree([](sim::Storage &) {
        os_dentry *dentry = trak_get_file_dentry("/mnt/none", 0);
        EXPECT_TRUE(dentry == nullptr || os_ptr_err(dentry) == -ENOENT);
        dentry = trak_get_file_dentry("/none/none", 0);
        ASSERT_TRUE(os_is_err(dentry));
        EXPECT_EQ(os_ptr_err(dentry), -ENOENT);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(path, lookup_gives_a_referenced_entry_and_tells_of_it) {
    with_tree([](sim::Storage &) {
        trak_debug = 2;
        os_dentry *dentry = trak_get_file_dentry("/mnt/bmp/file", 0);
        ASSERT_FALSE(dentry == nullptr || os_is_err(dentry));
        EXPECT_STREQ(os_dentry_name(dentry), "file");
        char line[256];
        std::snprintf(line, sizeof line,
                      "trak_get_file_dentry(): /mnt/bmp/file: dentry=(%p, file), inode=(%p, %d)",
                      static_cast<void *>(dentry), os_dentry_inode(dentry),
                      static_cast<int>(os_dentry_ino(dentry)));
        EXPECT_LOGGED_INFO(line);
        os_dput(dentry);
    });
}

TEST(path, lookup_follows_a_last_link_only_when_told_to) {
    with_tree([](sim::Storage &) {
        os_dentry *link = trak_get_file_dentry("/mnt/link", 0);
        ASSERT_FALSE(link == nullptr || os_is_err(link));
        EXPECT_EQ(os_dentry_sb_dev(link), os_mkdev(8, 1));
        os_dput(link);
        os_dentry *target = trak_get_file_dentry("/mnt/link", 1);
        ASSERT_FALSE(target == nullptr || os_is_err(target));
        EXPECT_EQ(os_dentry_sb_dev(target), 0u);
        os_dput(target);
    });
}

TEST(path, device_below_a_path_is_that_of_its_file_system) {
    with_tree([](sim::Storage &) {
        EXPECT_EQ(trak_get_file_devt("/mnt/bmp/file"), os_mkdev(8, 1));
        EXPECT_EQ(trak_get_file_devt("/mnt"), os_mkdev(8, 1));
        EXPECT_EQ(trak_get_file_devt("/"), os_mkdev(8, 2));
    });
}

TEST(path, device_below_a_missing_path_is_that_of_the_deepest_ancestor) {
    with_tree([](sim::Storage &) {
        EXPECT_EQ(trak_get_file_devt("/mnt/bmp/none"), os_mkdev(8, 1));
        EXPECT_EQ(trak_get_file_devt("/mnt/a/b/c/trak1.incr"), os_mkdev(8, 1));
        EXPECT_EQ(trak_get_file_devt("/mnt/bmp/file/below"), os_mkdev(8, 1));
        EXPECT_EQ(trak_get_file_devt("/mnt/bmp/none/"), os_mkdev(8, 1));
    });
}

TEST(path, device_below_a_file_system_without_one_is_none) {
    with_tree([](sim::Storage &) {
        EXPECT_EQ(trak_get_file_devt("/run/lock"), 0u);
        EXPECT_EQ(trak_get_file_devt("/run/none/none"), 0u);
    });
}

TEST(path, link_in_the_last_place_is_not_followed_to_another_file_system) {
    with_tree([](sim::Storage &storage) {
        storage.write_file("/run/lock/file", {});
        EXPECT_EQ(trak_get_file_devt("/mnt/link"), os_mkdev(8, 1));
        EXPECT_EQ(trak_get_file_devt("/mnt/link/file"), 0u);
        // What is missing behind the link leaves the link itself in the last place.
        EXPECT_EQ(trak_get_file_devt("/mnt/link/none"), os_mkdev(8, 1));
    });
}

TEST(path, entry_without_an_inode_is_nothing_and_its_parent_is_tried) {
    with_tree([](sim::Storage &storage) {
        storage.hide_inode("/mnt/bmp/file", true);
        EXPECT_EQ(trak_get_file_dentry("/mnt/bmp/file", 0), nullptr);
        EXPECT_EQ(trak_get_file_devt("/mnt/bmp/file"), os_mkdev(8, 1));
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(path, root_is_never_tried_after_a_cut) {
    with_tree([](sim::Storage &) {
        EXPECT_EQ(trak_get_file_devt("/none"), 0u);
        EXPECT_EQ(trak_get_file_devt("/none/none"), 0u);
    });
}

TEST(path, device_below_a_relative_path_is_none) {
    with_tree([](sim::Storage &) {
        EXPECT_EQ(trak_get_file_devt("mnt/bmp"), 0u);
        EXPECT_EQ(trak_get_file_devt("mnt"), 0u);
        EXPECT_EQ(trak_get_file_devt(""), 0u);
    });
}

TEST(path, device_below_a_path_is_none_without_memory) {
    with_tree([](sim::Storage &) {
        trak_log(TRAK_LOG_MILESTONE, "%s(): first message", "test");
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(trak_get_file_devt("/mnt"), 0u);
        EXPECT_LOGGED_ERROR("trak_get_file_devt(): Memory allocation failed.");
    });
}

TEST(path, unlink_removes_a_name) {
    with_tree([](sim::Storage &storage) {
        trak_debug = 3;
        EXPECT_EQ(trak_unlink("/mnt/bmp/file"), 0);
        EXPECT_FALSE(storage.exists("/mnt/bmp/file"));
        EXPECT_LOGGED_INFO("trak_unlink(): fname=/mnt/bmp/file");
        EXPECT_EQ(sim::count_log("ERROR"), 0u);
    });
}

TEST(path, unlink_of_a_missing_name_is_enoent_without_a_message) {
    with_tree([](sim::Storage &) {
        EXPECT_EQ(trak_unlink("/mnt/bmp/none"), -ENOENT);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(path, unlink_says_when_the_parent_is_missing) {
    with_tree([](sim::Storage &) {
        EXPECT_EQ(trak_unlink("/none/file"), -ENOENT);
        EXPECT_LOGGED_ERROR("trak_unlink(): Failed to lookup parent of /none/file: rc=-2");
    });
}

TEST(path, unlink_says_when_the_last_component_is_no_name) {
    with_tree([](sim::Storage &storage) {
        for (const char *name : {"/mnt/bmp/.", "/mnt/bmp/..", "/"}) {
            EXPECT_EQ(trak_unlink(name), -EEXIST);
            EXPECT_LOGGED_ERROR("trak_unlink(): Failed to lookup " + std::string(name) +
                                ": rc=-17");
        }
        EXPECT_EQ(trak_unlink("/mnt/bmp/none/"), -ENOENT);
        EXPECT_LOGGED_ERROR("trak_unlink(): Failed to lookup /mnt/bmp/none/: rc=-2");
        EXPECT_TRUE(storage.exists("/mnt/bmp/file"));
        // The folder's mutex was given back every time.
        EXPECT_EQ(trak_unlink("/mnt/bmp/file"), 0);
    });
}

TEST(path, unlink_says_what_failed) {
    with_tree([](sim::Storage &storage) {
        storage.set_read_only("/mnt", true);
        EXPECT_EQ(trak_unlink("/mnt/bmp/file"), -EROFS);
        EXPECT_LOGGED_ERROR("trak_unlink(): Failed to unlink /mnt/bmp/file: rc=-30");
    });
}

TEST(path, mknod_makes_a_block_or_a_character_device) {
    with_tree([](sim::Storage &) {
        trak_debug = 3;
        EXPECT_EQ(trak_mknod("/mnt/blk", 1, 100, 7), 0);
        EXPECT_LOGGED_INFO("trak_mknod(): fname=/mnt/blk, block=1, dev=(100, 7)");
        EXPECT_EQ(trak_mknod("/mnt/chr", 0, 4095, 0xfffff), 0);
        os_dentry *blk = trak_get_file_dentry("/mnt/blk", 0);
        os_dentry *chr = trak_get_file_dentry("/mnt/chr", 0);
        ASSERT_FALSE(blk == nullptr || os_is_err(blk) || chr == nullptr || os_is_err(chr));
        EXPECT_EQ(os_dentry_mode(blk), 0060600u);
        EXPECT_EQ(os_dentry_rdev(blk), 0x06400007u);
        EXPECT_EQ(os_dentry_mode(chr), 0020600u);
        EXPECT_EQ(os_dentry_rdev(chr), 0xffffffffu);
        os_dput(blk);
        os_dput(chr);
        EXPECT_EQ(sim::count_log("ERROR"), 0u);
    });
}

TEST(path, mknod_over_an_existing_name_is_eexist) {
    with_tree([](sim::Storage &) {
        EXPECT_EQ(trak_mknod("/mnt/bmp/file", 1, 100, 7), -EEXIST);
        EXPECT_LOGGED_ERROR("trak_mknod(): Failed to mknod /mnt/bmp/file: rc=-17");
    });
}

TEST(path, mknod_says_when_the_parent_or_the_name_is_missing) {
    with_tree([](sim::Storage &) {
        EXPECT_EQ(trak_mknod("/none/node", 1, 100, 7), -ENOENT);
        EXPECT_LOGGED_ERROR("trak_mknod(): Failed to lookup parent of /none/node: rc=-2");
        EXPECT_EQ(trak_mknod("/mnt/.", 1, 100, 7), -EEXIST);
        EXPECT_LOGGED_ERROR("trak_mknod(): Failed to lookup /mnt/.: rc=-17");
        EXPECT_EQ(trak_mknod("/mnt/node/", 1, 100, 7), -ENOENT);
        EXPECT_LOGGED_ERROR("trak_mknod(): Failed to lookup /mnt/node/: rc=-2");
    });
}

TEST(path, mknod_says_what_failed) {
    with_tree([](sim::Storage &storage) {
        storage.set_read_only("/mnt", true);
        EXPECT_EQ(trak_mknod("/mnt/node", 1, 100, 7), -EROFS);
        EXPECT_LOGGED_ERROR("trak_mknod(): Failed to mknod /mnt/node: rc=-30");
    });
}

TEST(path, lookup_for_creation_keeps_the_parent_locked_whatever_it_finds) {
    with_tree([](sim::Storage &) {
        const struct {
            const char *name;
            int err;  // 1: an entry
        } cases[] = {{"/mnt/bmp/file", 1},
                     {"/mnt/bmp/new", 1},
                     {"/mnt/bmp/.", -EEXIST},
                     {"/mnt/bmp/new/", -ENOENT}};
        for (const auto &c : cases) {
            os_parent *parent = os_path_parent(c.name);
            ASSERT_FALSE(os_is_err(parent)) << c.name;
            os_dentry *dentry = trak_lookup_create(parent);
            if (c.err == 1) {
                ASSERT_FALSE(os_is_err(dentry)) << c.name;
                os_dput(dentry);
            } else {
                ASSERT_TRUE(os_is_err(dentry)) << c.name;
                EXPECT_EQ(os_ptr_err(dentry), c.err);
            }
            bool removed = false;
            sim::Process *other = sim::spawn("other", [&] {
                (void)trak_unlink("/mnt/bmp/none");
                removed = true;
            });
            for (int i = 0; i < 50; ++i)
                sim::yield();
            EXPECT_FALSE(removed) << c.name;
            os_parent_unlock(parent);
            sim::join(other);
            os_parent_put(parent);
        }
    });
}

TEST(path, any_failing_call_of_unlink_and_mknod_is_reported_and_lets_go) {
    for (std::uint64_t nth = 1; nth <= 6; ++nth) {
        with_tree([&](sim::Storage &) {
            trak_log(TRAK_LOG_MILESTONE, "%s(): first message", "test");
            for (const sim::Fault kind : {sim::Fault::kOpen, sim::Fault::kAlloc}) {
                sim::clear_log();
                sim::fail_nth(kind, nth);
                const int rc = trak_mknod("/mnt/node", 1, 100, 7);
                EXPECT_EQ(rc != 0, sim::count_log("<3>ERROR: trak_mknod(): Failed to ") == 1)
                    << rc << sim_run::log_text();
                sim::fail_none();
                EXPECT_EQ(trak_unlink("/mnt/node"), rc == 0 ? 0 : -ENOENT);
            }
        });
    }
}

}  // namespace
