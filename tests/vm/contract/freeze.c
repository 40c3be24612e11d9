// tests/vm/contract/freeze.c: os/bdev.h: freezing the file system on a device
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/mount.h>
#include <linux/stat.h>

#include "os/disk.h"
#include "os/file.h"
#include "os/linux/block.h"
#include "os/task.h"
#include "tests/vm/contract/contract.h"
#include "tests/vm/contract/memory_disk.h"

static struct memory_disk one;
static const char special_file[] = "/dev/trakfreeze";

/* ---- a file system without files ---------------------------------------------------------------- */

static int fill_super(struct super_block *super, void *data, int silent) {
    static struct tree_descr no_files[] = {{""}};

    return simple_fill_super(super, 0x7472616b, no_files);
}

CONTRACT_MOUNT(mount_empty, fill_super)

static struct file_system_type empty_type = {
    .owner = THIS_MODULE,
    .name = "trak_contract",
    .fs_flags = FS_REQUIRES_DEV,
    .contract_mount = mount_empty,
    .kill_sb = kill_block_super,
};

/* The special file of the disk made or removed. */
static bool special(bool there) {
    struct os_parent *parent = os_path_parent(special_file);
    struct os_dentry *entry;
    bool done = false;

    if (!EXPECT(!os_is_err(parent)))
        return false;
    os_parent_lock(parent);
    entry = os_lookup_hash(parent);
    if (EXPECT(!os_is_err(entry))) {
        done = there ? EXPECT(os_vfs_mknod(parent, entry, OS_S_IFBLK | 0600, one.dev) == 0)
                     : EXPECT(os_vfs_unlink(parent, entry) == 0);
        os_dput(entry);
    }
    os_parent_unlock(parent);
    os_parent_put(parent);
    return done;
}

/* The empty file system mounted on the disk `one`, which nothing but the mount has open; or null. */
static struct vfsmount *mounted(void) {
    struct vfsmount *mount = NULL;

    if (!memory_disk_make(&one, "trakone"))
        return NULL;
    if (special(true)) {
        mount = vfs_kern_mount(&empty_type, SB_KERNMOUNT, special_file, NULL);
        special(false);
        if (EXPECT(!IS_ERR(mount)))
            return mount;
    }
    memory_disk_remove(&one);
    return NULL;
}

static bool is_released(void *disk) {
    return READ_ONCE(((struct memory_disk *)disk)->releases) == 1;
}

/* Calls body(mount) in a thread, which leaves the file system unmounted: a process would close its device
 * on its way out of the kernel. */
static void with_mount(void (*body)(void *mount)) {
    struct contract_thread thread;
    struct vfsmount *mount;

    ASSERT(register_filesystem(&empty_type) == 0);
    mount = mounted();
    if (EXPECT(mount)) {
        if (EXPECT(contract_start(&thread, body, mount) > 0))
            contract_join(&thread);
        EXPECT(contract_eventually(is_released, &one) && one.opens == 1);
        memory_disk_remove(&one);
    }
    EXPECT(unregister_filesystem(&empty_type) == 0);
}

static struct super_block *super_of(struct vfsmount *mount) {
    return mount->mnt_root->d_sb;
}

/* ---- the tests ---------------------------------------------------------------------------------- */

static void freeze_and_thaw(void *arg) {
    struct super_block *super = super_of(arg);
    struct os_bdev *bdev = (struct os_bdev *)super->s_bdev;
    struct os_super *frozen = os_freeze_bdev(bdev);

    if (EXPECT(frozen && !os_is_err(frozen))) {
        EXPECT(contract_is_frozen(super));
        EXPECT(os_thaw_bdev(bdev, frozen) == 0);
    }
    EXPECT(!contract_is_frozen(super));
    EXPECT(one.releases == 0);
    mntput(arg);
}

static void a_mounted_file_system_is_frozen_and_thawed(void) {
    with_mount(freeze_and_thaw);
}

/* The device is closed under a lock of the kernel under which it opens devices: not by who thaws. */
static void unmount_and_thaw(void *arg) {
    struct os_bdev *bdev = (struct os_bdev *)super_of(arg)->s_bdev;
    struct os_super *frozen = os_freeze_bdev(bdev);

    EXPECT(frozen && !os_is_err(frozen));
    mntput(arg);
    EXPECT(one.releases == 0);
    if (frozen && !os_is_err(frozen))
        EXPECT(os_thaw_bdev(bdev, frozen) == 0);
    EXPECT(contract_eventually(is_released, &one) && one.releaser != os_current());
}

static void a_file_system_unmounted_while_frozen_is_not_shut_down_by_the_thaw(void) {
    with_mount(unmount_and_thaw);
}

const struct contract_test freeze_tests[] = {
    CONTRACT(freeze, a_mounted_file_system_is_frozen_and_thawed),
    CONTRACT(freeze, a_file_system_unmounted_while_frozen_is_not_shut_down_by_the_thaw),
    {},
};
