// tests/vm/contract/chardev.c: os/chardev.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/chardev.h"

#include <linux/err.h>
#include <linux/kdev_t.h>
#include <linux/module.h>

#include "os/file.h"
#include "tests/vm/contract/contract.h"

static struct {
    int opens, releases;
    uint32_t cmd;
    unsigned long arg;
} calls;

static int count_open(void *inode, void *file) {
    calls.opens++;
    return 0;
}

static int count_release(void *inode, void *file) {
    calls.releases++;
    return 0;
}

static int keep_command(void *inode, void *file, uint32_t cmd, unsigned long arg) {
    calls.cmd = cmd;
    calls.arg = arg;
    return cmd == 7 ? -EBUSY : 3;
}

static long give_bytes(void *file, os_uaddr buf, size_t count, int64_t *pos) {
    if (os_copy_to_user(buf, "hello", min_t(size_t, count, 5)))
        return -EFAULT;
    return *pos ? 0 : (*pos += min_t(size_t, count, 5));
}

static const struct os_file_operations fops = {
    .read = give_bytes,
    .ioctl = keep_command,
    .open = count_open,
    .release = count_release,
};

static int refuse_open(void *inode, void *file) {
    return -EACCES;
}

static const struct os_file_operations refusing = {.open = refuse_open};

static void make_node(const char *path, int major) {
    struct os_parent *parent = os_path_parent(path);
    struct os_dentry *dentry;

    ASSERT(!os_is_err(parent));
    os_parent_lock(parent);
    dentry = os_lookup_hash(parent);
    if (EXPECT(!os_is_err(dentry))) {
        EXPECT(os_vfs_unlink(parent, dentry) != -EROFS); /* it may not be there */
        os_dput(dentry);
    }
    dentry = os_lookup_hash(parent);
    if (EXPECT(!os_is_err(dentry))) {
        EXPECT(os_vfs_mknod(parent, dentry, OS_S_IFCHR | 0600, os_mkdev(major, 5)) == 0);
        os_dput(dentry);
    }
    os_parent_unlock(parent);
    os_parent_put(parent);
}

static void every_call_reaches_its_operation(struct file *file, int references) {
    char text[16] = "";

    EXPECT(calls.opens == 1 && calls.releases == 0);
    EXPECT(module_refcount(THIS_MODULE) > references);
    EXPECT(file->f_op->unlocked_ioctl(file, 0x4321, 0x12345678) == 3);
    EXPECT(calls.cmd == 0x4321 && calls.arg == 0x12345678);
    EXPECT(file->f_op->unlocked_ioctl(file, 7, 0) == -EBUSY);
    EXPECT(contract_read(file, text, sizeof(text), 16) == 5);
    EXPECT(strcmp(text, "hello") == 0);
    EXPECT(contract_write(file, "text") == -EINVAL); /* it has no such operation */
}

static void a_device_serves_programs_and_keeps_the_module(void) {
    int references = module_refcount(THIS_MODULE);
    int major = os_register_chrdev(0, "trak_contract", &fops);
    struct file *file;

    ASSERT(major > 0);
    memset(&calls, 0, sizeof(calls));
    make_node("/dev/contract_chr", major);
    file = filp_open("/dev/contract_chr", O_RDWR, 0);
    if (EXPECT(!IS_ERR(file))) {
        every_call_reaches_its_operation(file, references);
        contract_close(file);
        EXPECT(calls.releases == 1);
        EXPECT(module_refcount(THIS_MODULE) == references);
    }
    os_unregister_chrdev(major, "trak_contract");
}

static void a_refused_open_leaves_no_reference(void) {
    int references = module_refcount(THIS_MODULE);
    int major = os_register_chrdev(0, "trak_refusing", &refusing);

    ASSERT(major > 0);
    make_node("/dev/contract_chr2", major);
    EXPECT(PTR_ERR(filp_open("/dev/contract_chr2", O_RDWR, 0)) == -EACCES);
    EXPECT(module_refcount(THIS_MODULE) == references);
    os_unregister_chrdev(major, "trak_refusing");
    EXPECT(PTR_ERR(filp_open("/dev/contract_chr2", O_RDWR, 0)) == -ENXIO);
}

static void a_major_is_registered_once(void) {
    int major = os_register_chrdev(0, "trak_first", &fops);

    ASSERT(major > 0);
    EXPECT(os_register_chrdev(major, "trak_second", &fops) == -EBUSY);
    os_unregister_chrdev(major, "trak_first");
    EXPECT(os_register_chrdev(major, "trak_second", &fops) == 0);
    os_unregister_chrdev(major, "trak_second");
    EXPECT(os_register_chrdev(512, "trak_third", &fops) == -EINVAL);
}

const struct contract_test chardev_tests[] = {
    CONTRACT(chardev, a_device_serves_programs_and_keeps_the_module),
    CONTRACT(chardev, a_refused_open_leaves_no_reference),
    CONTRACT(chardev, a_major_is_registered_once),
    {},
};
