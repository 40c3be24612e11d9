// tests/contract/path_contract.cpp: what os/file.h promises of paths, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/contract/platform.h"

namespace contract::path_tests {

namespace {

std::string in_scratch(const std::string &name) {
    return scratch() + "/" + name;
}

void make_empty_file(const std::string &path) {
    os_file *file = os_filp_open(path.c_str(), OS_O_WRONLY | OS_O_CREAT, 0640);
    ASSERT_FALSE(os_is_err(file));
    EXPECT_EQ(os_filp_close(file), 0);
}

int lookup_error(const std::string &path) {
    os_dentry *dentry = os_path_lookup(path.c_str(), 1);
    if (os_is_err(dentry))
        return os_ptr_err(dentry);
    if (dentry)
        os_dput(dentry);
    return 0;
}

// The steps of a removal; the result of the unlink.
int unlink_path(const std::string &path) {
    os_parent *parent = os_path_parent(path.c_str());
    if (os_is_err(parent))
        return os_ptr_err(parent);
    os_parent_lock(parent);
    os_dentry *dentry = os_lookup_hash(parent);
    int err = os_is_err(dentry) ? os_ptr_err(dentry) : os_vfs_unlink(parent, dentry);
    if (!os_is_err(dentry))
        os_dput(dentry);
    os_parent_unlock(parent);
    os_parent_put(parent);
    return err;
}

struct Last {
    bool normal, tail;
};

Last last_of(const std::string &path) {
    os_parent *parent = os_path_parent(path.c_str());
    EXPECT_FALSE(os_is_err(parent)) << path;
    if (os_is_err(parent))
        return {false, false};
    Last last{os_parent_last_is_normal(parent), os_parent_last_has_tail(parent)};
    os_parent_put(parent);
    return last;
}

}  // namespace

TEST(path, entry_of_a_file_tells_name_type_and_permissions) {
    run([] {
        make_empty_file(in_scratch("file"));
        os_dentry *dentry = os_path_lookup(in_scratch("file").c_str(), 1);
        ASSERT_FALSE(os_is_err(dentry));
        ASSERT_NE(dentry, nullptr);
        EXPECT_TRUE(os_dentry_positive(dentry));
        EXPECT_STREQ(os_dentry_name(dentry), "file");
        EXPECT_EQ(os_dentry_mode(dentry) & OS_S_IFMT, static_cast<unsigned>(OS_S_IFREG));
        EXPECT_NE(os_dentry_ino(dentry), 0u);
        os_dput(dentry);
    });
}

TEST(path, two_lookups_of_a_file_find_one_inode) {
    run([] {
        make_empty_file(in_scratch("a"));
        make_empty_file(in_scratch("b"));
        os_dentry *a = os_path_lookup(in_scratch("a").c_str(), 1);
        os_dentry *again = os_path_lookup(in_scratch("a").c_str(), 0);
        os_dentry *b = os_path_lookup(in_scratch("b").c_str(), 1);
        ASSERT_FALSE(os_is_err(a) || os_is_err(again) || os_is_err(b));
        EXPECT_EQ(os_dentry_ino(a), os_dentry_ino(again));
        EXPECT_NE(os_dentry_ino(a), os_dentry_ino(b));
        EXPECT_NE(os_dentry_inode(a), nullptr);
        EXPECT_NE(os_dentry_inode(a), os_dentry_inode(b));
        os_dput(a);
        os_dput(again);
        os_dput(b);
    });
}

TEST(path, files_of_one_file_system_lie_on_one_device) {
    run([] {
        make_empty_file(in_scratch("a"));
        os_dentry *file = os_path_lookup(in_scratch("a").c_str(), 1);
        os_dentry *folder = os_path_lookup(scratch().c_str(), 1);
        ASSERT_FALSE(os_is_err(file) || os_is_err(folder));
        EXPECT_EQ(os_dentry_sb_dev(file), os_dentry_sb_dev(folder));
        os_dput(file);
        os_dput(folder);
    });
}

TEST(path, missing_entries_and_folders_are_errors) {
    run([] {
        make_empty_file(in_scratch("file"));
        EXPECT_EQ(lookup_error(in_scratch("missing")), -ENOENT);
        EXPECT_EQ(lookup_error(in_scratch("missing/below")), -ENOENT);
        EXPECT_EQ(lookup_error(in_scratch("file/below")), -ENOTDIR);
    });
}

TEST(path, relative_paths_are_refused) {
    run([] {
        EXPECT_EQ(lookup_error("relative"), -EINVAL);
        EXPECT_EQ(lookup_error("./relative"), -EINVAL);
        os_parent *parent = os_path_parent("relative/name");
        ASSERT_TRUE(os_is_err(parent));
        EXPECT_EQ(os_ptr_err(parent), -EINVAL);
    });
}

TEST(path, dots_and_doubled_slashes_lead_to_the_same_entry) {
    run([] {
        make_folder(in_scratch("dir"));
        make_empty_file(in_scratch("dir/file"));
        os_dentry *plain = os_path_lookup(in_scratch("dir/file").c_str(), 1);
        os_dentry *odd = os_path_lookup(in_scratch("dir//./../dir/file").c_str(), 1);
        ASSERT_FALSE(os_is_err(plain) || os_is_err(odd));
        EXPECT_EQ(os_dentry_ino(plain), os_dentry_ino(odd));
        os_dput(plain);
        os_dput(odd);
    });
}

TEST(path, a_symbolic_link_is_followed_when_asked) {
    run([] {
        make_empty_file(in_scratch("file"));
        make_symlink(in_scratch("file"), in_scratch("link"));
        os_dentry *file = os_path_lookup(in_scratch("file").c_str(), 1);
        os_dentry *followed = os_path_lookup(in_scratch("link").c_str(), 1);
        os_dentry *link = os_path_lookup(in_scratch("link").c_str(), 0);
        ASSERT_FALSE(os_is_err(file) || os_is_err(followed) || os_is_err(link));
        EXPECT_EQ(os_dentry_ino(followed), os_dentry_ino(file));
        EXPECT_NE(os_dentry_ino(link), os_dentry_ino(file));
        EXPECT_NE(os_dentry_mode(link) & OS_S_IFMT, static_cast<unsigned>(OS_S_IFREG));
        os_dput(file);
        os_dput(followed);
        os_dput(link);
    });
}

TEST(path, links_in_the_middle_are_always_followed) {
    run([] {
        make_folder(in_scratch("dir"));
        make_empty_file(in_scratch("dir/file"));
        make_symlink(in_scratch("dir"), in_scratch("link"));
        EXPECT_EQ(lookup_error(in_scratch("link/file")), 0);
        make_symlink("dir", in_scratch("short"));
        EXPECT_EQ(lookup_error(in_scratch("short/file")), 0);
        make_symlink(in_scratch("nowhere"), in_scratch("dangling"));
        EXPECT_EQ(lookup_error(in_scratch("dangling")), -ENOENT);
    });
}

TEST(path, a_disk_is_found_by_its_special_file) {
    run([] {
        make_folder(in_scratch("dev"));
        std::string path = in_scratch("dev/special");
        os_parent *parent = os_path_parent(path.c_str());
        ASSERT_FALSE(os_is_err(parent));
        os_parent_lock(parent);
        os_dentry *dentry = os_lookup_hash(parent);
        ASSERT_FALSE(os_is_err(dentry));
        int err = os_vfs_mknod(parent, dentry, OS_S_IFBLK | 0600, os_mkdev(240, 77));
        os_dput(dentry);
        os_parent_unlock(parent);
        os_parent_put(parent);
        if (err == -EPERM)
            GTEST_SKIP() << "this user may not make special files";
        ASSERT_EQ(err, 0);
        dentry = os_path_lookup(path.c_str(), 1);
        ASSERT_FALSE(os_is_err(dentry));
        EXPECT_EQ(os_dentry_mode(dentry) & OS_S_IFMT, static_cast<unsigned>(OS_S_IFBLK));
        EXPECT_EQ(os_dentry_mode(dentry) & 0777, 0600u);
        EXPECT_EQ(os_dentry_rdev(dentry), os_mkdev(240, 77));
        os_dput(dentry);
        EXPECT_EQ(unlink_path(path), 0);
        EXPECT_FALSE(exists(path));
    });
}

TEST(path, mknod_over_an_existing_name_fails) {
    run([] {
        make_empty_file(in_scratch("taken"));
        os_parent *parent = os_path_parent(in_scratch("taken").c_str());
        ASSERT_FALSE(os_is_err(parent));
        os_parent_lock(parent);
        os_dentry *dentry = os_lookup_hash(parent);
        ASSERT_FALSE(os_is_err(dentry));
        EXPECT_TRUE(os_dentry_positive(dentry));
        EXPECT_EQ(os_vfs_mknod(parent, dentry, OS_S_IFBLK | 0600, os_mkdev(240, 1)), -EEXIST);
        os_dput(dentry);
        os_parent_unlock(parent);
        os_parent_put(parent);
    });
}

TEST(path, unlink_takes_a_name_away_and_says_when_there_is_none) {
    run([] {
        make_empty_file(in_scratch("file"));
        EXPECT_EQ(unlink_path(in_scratch("file")), 0);
        EXPECT_FALSE(exists(in_scratch("file")));
        EXPECT_EQ(unlink_path(in_scratch("file")), -ENOENT);
    });
}

TEST(path, unlink_of_a_folder_fails_and_leaves_it) {
    run([] {
        make_folder(in_scratch("dir"));
        EXPECT_LT(unlink_path(in_scratch("dir")), 0);
        EXPECT_TRUE(exists(in_scratch("dir")));
    });
}

TEST(path, unlink_of_a_symbolic_link_leaves_its_target) {
    run([] {
        make_empty_file(in_scratch("file"));
        make_symlink(in_scratch("file"), in_scratch("link"));
        EXPECT_EQ(unlink_path(in_scratch("link")), 0);
        EXPECT_FALSE(exists(in_scratch("link")));
        EXPECT_TRUE(exists(in_scratch("file")));
    });
}

TEST(path, the_parent_must_exist_and_the_name_need_not) {
    run([] {
        os_parent *parent = os_path_parent(in_scratch("missing/name").c_str());
        ASSERT_TRUE(os_is_err(parent));
        EXPECT_EQ(os_ptr_err(parent), -ENOENT);
        make_empty_file(in_scratch("file"));
        parent = os_path_parent(in_scratch("file/name").c_str());
        ASSERT_TRUE(os_is_err(parent));
        EXPECT_EQ(os_ptr_err(parent), -ENOTDIR);
        parent = os_path_parent(in_scratch("new").c_str());
        ASSERT_FALSE(os_is_err(parent));
        os_parent_lock(parent);
        os_dentry *dentry = os_lookup_hash(parent);
        ASSERT_FALSE(os_is_err(dentry));
        EXPECT_FALSE(os_dentry_positive(dentry));
        os_dput(dentry);
        os_parent_unlock(parent);
        os_parent_put(parent);
    });
}

TEST(path, the_last_component_tells_whether_it_is_a_name_and_what_follows_it) {
    run([] {
        Last plain = last_of(in_scratch("name"));
        EXPECT_TRUE(plain.normal);
        EXPECT_FALSE(plain.tail);
        Last tail = last_of(in_scratch("name/"));
        EXPECT_TRUE(tail.normal);
        EXPECT_TRUE(tail.tail);
        EXPECT_FALSE(last_of(in_scratch(".")).normal);
        EXPECT_FALSE(last_of(in_scratch("..")).normal);
        EXPECT_FALSE(last_of("/").normal);
    });
}

TEST(path, the_folder_lock_keeps_others_out) {
    run([] {
        std::string path = in_scratch("name");
        os_parent *parent = os_path_parent(path.c_str());
        ASSERT_FALSE(os_is_err(parent));
        os_parent_lock(parent);
        bool locked = true;
        Process *other = start([&] {
            os_parent *mine = os_path_parent(path.c_str());
            ASSERT_FALSE(os_is_err(mine));
            os_parent_lock(mine);
            EXPECT_FALSE(locked);
            os_parent_unlock(mine);
            os_parent_put(mine);
        });
        linger();
        locked = false;
        os_parent_unlock(parent);
        join(other);
        os_parent_put(parent);
    });
}

}  // namespace contract::path_tests
