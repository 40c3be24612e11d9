// tests/vm/contract/path.c: paths and folders of os/file.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/file.h"
#include "tests/vm/contract/contract.h"

static void an_entry_says_what_it_is(void) {
    struct os_dentry *dentry = os_path_lookup("/dev/null", 1);

    ASSERT(dentry && !os_is_err(dentry));
    EXPECT(os_dentry_positive(dentry));
    EXPECT(strcmp(os_dentry_name(dentry), "null") == 0);
    EXPECT((os_dentry_mode(dentry) & OS_S_IFMT) == OS_S_IFCHR);
    EXPECT(os_dentry_rdev(dentry) == os_mkdev(1, 3));
    EXPECT(os_dentry_inode(dentry) && os_dentry_ino(dentry));
    EXPECT(os_dentry_sb_dev(dentry) == 0); /* a file system in memory */
    os_dput(dentry);
}

static void a_link_at_the_end_is_followed_only_when_asked(void) {
    struct os_dentry *dentry = os_path_lookup("/proc/self", 0);

    ASSERT(dentry && !os_is_err(dentry));
    EXPECT((os_dentry_mode(dentry) & OS_S_IFMT) == 0120000);
    os_dput(dentry);
    dentry = os_path_lookup("/proc/self", 1);
    ASSERT(dentry && !os_is_err(dentry));
    EXPECT((os_dentry_mode(dentry) & OS_S_IFMT) == 0040000);
    os_dput(dentry);
}

static void what_is_not_there_says_why(void) {
    EXPECT(os_ptr_err(os_path_lookup("/tmp/contract_missing", 1)) == -ENOENT);
    EXPECT(os_ptr_err(os_path_lookup("tmp", 1)) == -EINVAL);
    EXPECT(os_ptr_err(os_path_lookup("", 1)) == -EINVAL);
    EXPECT(os_ptr_err(os_path_lookup("/dev/null/below", 1)) == -ENOTDIR);
    EXPECT(os_ptr_err(os_path_parent("/tmp/contract_missing/name")) == -ENOENT);
    EXPECT(os_ptr_err(os_path_parent("/dev/null/name")) == -ENOTDIR);
    EXPECT(os_ptr_err(os_path_parent("name")) == -EINVAL);
}

static void expect_last(const char *path, bool normal, bool tail) {
    struct os_parent *parent = os_path_parent(path);

    ASSERT(!os_is_err(parent));
    EXPECT(os_parent_last_is_normal(parent) == normal);
    EXPECT(os_parent_last_has_tail(parent) == tail);
    os_parent_put(parent);
}

static void the_last_component_is_told_from_dots_and_the_root(void) {
    expect_last("/tmp/name", true, false);
    expect_last("/tmp//name/", true, true);
    expect_last("/name", true, false);
    expect_last("/tmp/.", false, false);
    expect_last("/tmp/..", false, false);
    expect_last("/tmp/..name", true, false);
    expect_last("/", false, true);
}

// Makes the device special file (0), or says why not; then the same for its removal.
static int make_node(const char *path, os_dev_t dev) {
    struct os_parent *parent = os_path_parent(path);
    struct os_dentry *dentry;
    int rc;

    if (os_is_err(parent))
        return os_ptr_err(parent);
    os_parent_lock(parent);
    dentry = os_lookup_hash(parent);
    rc = os_is_err(dentry) ? os_ptr_err(dentry)
                           : os_vfs_mknod(parent, dentry, OS_S_IFBLK | 0600, dev);
    if (!os_is_err(dentry))
        os_dput(dentry);
    os_parent_unlock(parent);
    os_parent_put(parent);
    return rc;
}

static int unlink(const char *path) {
    struct os_parent *parent = os_path_parent(path);
    struct os_dentry *dentry;
    int rc;

    if (os_is_err(parent))
        return os_ptr_err(parent);
    os_parent_lock(parent);
    dentry = os_lookup_hash(parent);
    rc = os_is_err(dentry) ? os_ptr_err(dentry) : os_vfs_unlink(parent, dentry);
    if (!os_is_err(dentry))
        os_dput(dentry);
    os_parent_unlock(parent);
    os_parent_put(parent);
    return rc;
}

static void a_special_file_comes_and_goes(void) {
    static const char name[] = "/tmp/contract_node";
    struct os_dentry *dentry;

    (void)unlink(name);
    EXPECT(unlink(name) == -ENOENT);
    ASSERT(make_node(name, os_mkdev(100, 70000)) == 0);
    EXPECT(make_node(name, os_mkdev(100, 1)) == -EEXIST);
    dentry = os_path_lookup(name, 0);
    if (EXPECT(dentry && !os_is_err(dentry))) {
        EXPECT(os_dentry_mode(dentry) == (OS_S_IFBLK | 0600));
        EXPECT(os_dentry_rdev(dentry) == os_mkdev(100, 70000));
        os_dput(dentry);
    }
    EXPECT(unlink(name) == 0);
    EXPECT(os_ptr_err(os_path_lookup(name, 0)) == -ENOENT);
}

static void a_folder_is_not_unlinked(void) {
    EXPECT(unlink("/proc/sys") < 0);
    EXPECT(unlink("/tmp") < 0); /* a folder, and something is mounted there */
    EXPECT(make_node("/proc/contract_node", os_mkdev(100, 1)) < 0);
}

const struct contract_test path_tests[] = {
    CONTRACT(path, an_entry_says_what_it_is),
    CONTRACT(path, a_link_at_the_end_is_followed_only_when_asked),
    CONTRACT(path, what_is_not_there_says_why),
    CONTRACT(path, the_last_component_is_told_from_dots_and_the_root),
    CONTRACT(path, a_special_file_comes_and_goes),
    CONTRACT(path, a_folder_is_not_unlinked),
    {},
};
