// tests/unit/user/files_test.cpp: files, paths, the platform's own folders, /proc, the control device
// SPDX-License-Identifier: GPL-2.0-only
#include "os/file.h"

#include <sys/sysmacros.h>

#include <thread>

#include "os/chardev.h"
#include "os/lock.h"
#include "os/proc.h"
#include "os/task.h"
#include "user_testing.h"

namespace {

using user_testing::eventually;
using user_testing::Folder;

struct Entry {
    explicit Entry(const std::string &path, int follow = 1)
        : entry(os_path_lookup(path.c_str(), follow)) {}
    ~Entry() {
        if (entry && !os_is_err(entry))
            os_dput(entry);
    }
    int err() const { return os_is_err(entry) ? os_ptr_err(entry) : 0; }
    os_dentry *entry;
};

int make_special(const std::string &path, std::uint32_t mode, os_dev_t dev) {
    os_parent *parent = os_path_parent(path.c_str());
    if (os_is_err(parent))
        return os_ptr_err(parent);
    os_parent_lock(parent);
    os_dentry *entry = os_lookup_hash(parent);
    int rc = os_is_err(entry) ? os_ptr_err(entry) : os_vfs_mknod(parent, entry, mode, dev);
    if (!os_is_err(entry))
        os_dput(entry);
    os_parent_unlock(parent);
    os_parent_put(parent);
    return rc;
}

int remove_entry(const std::string &path) {
    os_parent *parent = os_path_parent(path.c_str());
    if (os_is_err(parent))
        return os_ptr_err(parent);
    os_parent_lock(parent);
    os_dentry *entry = os_lookup_hash(parent);
    int rc = os_is_err(entry) ? os_ptr_err(entry) : os_vfs_unlink(parent, entry);
    if (!os_is_err(entry))
        os_dput(entry);
    os_parent_unlock(parent);
    os_parent_put(parent);
    return rc;
}

class user_files : public user_testing::PlatformTest {
  protected:
    Folder folder_;
};

TEST_F(user_files, what_is_written_is_read_back_at_its_place) {
    os_file *file = os_filp_open((folder_ / "f").c_str(), OS_O_RDWR | OS_O_CREAT | OS_O_SYNC, 0600);
    ASSERT_FALSE(os_is_err(file));
    std::int64_t pos = 10;
    EXPECT_EQ(os_vfs_write(file, "hello", 5, &pos), 5);
    EXPECT_EQ(pos, 15);
    EXPECT_EQ(os_vfs_fsync(file), 0);
    EXPECT_EQ(os_file_size(file), 15);
    char got[20];
    pos = 12;
    EXPECT_EQ(os_vfs_read(file, got, sizeof(got), &pos), 3);
    EXPECT_EQ(std::string(got, 3), "llo");
    EXPECT_EQ(os_vfs_read(file, got, sizeof(got), &pos), 0);
    EXPECT_EQ(os_filp_close(file), 0);
    struct stat st;
    ASSERT_EQ(stat((folder_ / "f").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(user_files, opening_fails_as_the_machine_says) {
    EXPECT_EQ(os_ptr_err(os_filp_open((folder_ / "absent").c_str(), OS_O_RDONLY, 0)), -ENOENT);
    EXPECT_EQ(os_ptr_err(os_filp_open(folder_.path().c_str(), OS_O_RDWR, 0)), -EISDIR);
    EXPECT_EQ(os_ptr_err(os_filp_open("relative", OS_O_RDONLY, 0)), -EINVAL);
}

TEST_F(user_files, a_pipe_in_the_place_of_a_file_does_not_hold_the_driver_up) {
    ASSERT_EQ(mkfifo((folder_ / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(os_ptr_err(os_filp_open((folder_ / "pipe").c_str(), OS_O_WRONLY, 0)), -ENXIO);
    os_file *file = os_filp_open((folder_ / "pipe").c_str(), OS_O_RDONLY, 0);
    ASSERT_FALSE(os_is_err(file));
    char byte;
    std::int64_t pos = 0;
    EXPECT_LT(os_vfs_read(file, &byte, 1, &pos), 0);
    EXPECT_EQ(os_filp_close(file), 0);
}

TEST_F(user_files, an_entry_tells_its_name_type_and_number) {
    user_testing::make_file(folder_ / "f", 1);
    ASSERT_EQ(symlink("f", (folder_ / "link").c_str()), 0);
    Entry file(folder_ / "f"), followed(folder_ / "link", 1), link(folder_ / "link", 0);
    ASSERT_EQ(file.err(), 0);
    EXPECT_TRUE(os_dentry_positive(file.entry));
    EXPECT_STREQ(os_dentry_name(file.entry), "f");
    EXPECT_EQ(os_dentry_mode(file.entry) & OS_S_IFMT, std::uint32_t{OS_S_IFREG});
    EXPECT_EQ(os_dentry_ino(followed.entry), os_dentry_ino(file.entry));
    EXPECT_NE(os_dentry_ino(link.entry), os_dentry_ino(file.entry));
    EXPECT_NE(os_dentry_inode(file.entry), nullptr);
    EXPECT_EQ(Entry(folder_ / "absent").err(), -ENOENT);
    EXPECT_EQ(Entry(folder_ / "f/below").err(), -ENOTDIR);
    EXPECT_EQ(Entry("relative").err(), -EINVAL);
    EXPECT_STREQ(os_dentry_name(Entry("/").entry), "/");
    EXPECT_STREQ(os_dentry_name(Entry(folder_.path() + "//").entry),
                 folder_.path().substr(5).c_str());
}

TEST_F(user_files, a_file_system_without_a_block_device_has_number_zero) {
    EXPECT_EQ(os_dentry_sb_dev(Entry("/proc/self").entry), 0u);
    Folder memory("/dev/shm");
    EXPECT_EQ(os_dentry_sb_dev(Entry(memory.path()).entry), 0u);
    struct stat st;
    ASSERT_EQ(stat("/", &st), 0);
    os_dev_t root =
        gnu_dev_major(st.st_dev) ? os_mkdev(gnu_dev_major(st.st_dev), gnu_dev_minor(st.st_dev)) : 0;
    EXPECT_EQ(os_dentry_sb_dev(Entry("/").entry), root);
}

TEST_F(user_files, parents_tell_what_the_last_component_is) {
    auto check = [&](const std::string &path, bool normal, bool tail) {
        os_parent *parent = os_path_parent(path.c_str());
        ASSERT_FALSE(os_is_err(parent)) << path;
        EXPECT_EQ(os_parent_last_is_normal(parent), normal) << path;
        EXPECT_EQ(os_parent_last_has_tail(parent), tail) << path;
        os_parent_put(parent);
    };
    check(folder_ / "x", true, false);
    check(folder_ / "x//", true, true);
    check(folder_ / ".", false, false);
    check(folder_ / "..", false, false);
    check("/", false, false);
    EXPECT_EQ(os_ptr_err(os_path_parent((folder_ / "no/x").c_str())), -ENOENT);
    EXPECT_EQ(os_ptr_err(os_path_parent("x")), -EINVAL);
}

TEST_F(user_files, files_of_the_machine_are_unlinked_and_special_files_made) {
    EXPECT_EQ(remove_entry(folder_ / "absent"), -ENOENT);
    user_testing::make_file(folder_ / "f", 1);
    EXPECT_EQ(make_special(folder_ / "f", OS_S_IFCHR | 0600, os_mkdev(1, 3)), -EEXIST);
    EXPECT_EQ(remove_entry(folder_ / "f"), 0);
    EXPECT_EQ(access((folder_ / "f").c_str(), F_OK), -1);
    int rc = make_special(folder_ / "null", OS_S_IFCHR | 0600, os_mkdev(1, 3));
    if (rc == -EPERM)
        GTEST_SKIP() << "this user may not make special files";
    ASSERT_EQ(rc, 0);
    Entry special(folder_ / "null");
    EXPECT_EQ(os_dentry_mode(special.entry) & OS_S_IFMT, std::uint32_t{OS_S_IFCHR});
    EXPECT_EQ(os_dentry_rdev(special.entry), os_mkdev(1, 3));
}

struct Heard : user::Listener {
    std::vector<std::string> events;
    void node_added(os_dev_t dev) override { events.push_back("+" + std::to_string(dev)); }
    void node_removed(os_dev_t dev) override { events.push_back("-" + std::to_string(dev)); }
    void name_added(const user::DevName &name) override { events.push_back("+" + name.name); }
    void name_removed(const user::DevName &name) override { events.push_back("-" + name.name); }
};

TEST_F(user_files, special_files_below_dev_trak_are_names_of_the_platform_only) {
    Heard heard;
    user::set_listener(&heard);
    EXPECT_EQ(remove_entry("/dev/trak/vol"), -ENOENT);
    EXPECT_EQ(make_special("/dev/trak/vol", OS_S_IFBLK | 0600, os_mkdev(100, 7)), 0);
    EXPECT_EQ(make_special("/dev//trak/vol", OS_S_IFBLK | 0600, os_mkdev(100, 8)), -EEXIST);
    Entry made("/dev/trak/vol");
    ASSERT_EQ(made.err(), 0);
    EXPECT_EQ(os_dentry_rdev(made.entry), os_mkdev(100, 7));
    EXPECT_EQ(os_dentry_mode(made.entry), std::uint32_t{OS_S_IFBLK | 0600});
    EXPECT_EQ(os_dentry_sb_dev(made.entry), 0u);
    std::vector<user::DevName> names = user::dev_names();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0].name, "vol");
    EXPECT_EQ(names[0].dev, os_mkdev(100, 7));
    EXPECT_EQ(remove_entry("/dev/trak/vol"), 0);
    EXPECT_EQ(Entry("/dev/trak/vol").err(), -ENOENT);
    EXPECT_EQ(heard.events, (std::vector<std::string>{"+vol", "-vol"}));
    user::set_listener(nullptr);
}

TEST_F(user_files, the_platforms_folders_never_lead_out_into_the_machine) {
    user_testing::make_file(folder_ / "f", 1);
    std::string out = "/dev/trak/../.." + (folder_ / "f");
    EXPECT_EQ(remove_entry(out), -ENOENT);
    EXPECT_EQ(Entry(out).err(), -ENOENT);
    EXPECT_EQ(access((folder_ / "f").c_str(), F_OK), 0);
    EXPECT_EQ(make_special("/dev/image/new", OS_S_IFBLK | 0600, os_mkdev(100, 1)), -EROFS);
    EXPECT_EQ(os_ptr_err(os_filp_open("/dev/trak/x", OS_O_RDWR | OS_O_CREAT, 0600)), -ENXIO);
    Entry top("/dev/trak");
    ASSERT_EQ(top.err(), 0);
    EXPECT_EQ(os_dentry_mode(top.entry) & OS_S_IFMT, std::uint32_t{S_IFDIR});
}

// ---- /proc -----------------------------------------------------------------------------------------

int read_entry(char *page, char **, long, int, int *eof, void *data) {
    *eof = 1;
    return snprintf(page, OS_PAGE_SIZE, "%s in %s\n",
                    os_proc_name(static_cast<os_proc_entry *>(data)),
                    os_proc_name(os_proc_parent(static_cast<os_proc_entry *>(data))));
}

int write_entry(void *, os_uaddr buffer, unsigned long count, void *data) {
    std::string text(count, '\0');
    if (os_copy_from_user(text.data(), buffer, count))
        return -EFAULT;
    *static_cast<std::string *>(data) = text;
    return static_cast<int>(count);
}

TEST_F(user_files, proc_files_are_listed_read_and_written) {
    os_proc_entry *folder = os_proc_mkdir("trak", nullptr);
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(os_proc_mkdir("trak", nullptr), nullptr);
    os_proc_entry *shown = os_create_proc_entry("uuid", 0444, folder);
    os_proc_entry *taken = os_create_proc_entry("debug", 0644, folder);
    std::string written;
    os_proc_set_ops(shown, read_entry, nullptr, shown);
    os_proc_set_ops(taken, nullptr, write_entry, &written);

    std::string text;
    EXPECT_EQ(user::proc_read("trak/uuid", &text), 0);
    EXPECT_EQ(text, "uuid in trak\n");
    EXPECT_EQ(user::proc_read("trak/debug", &text), 0);
    EXPECT_EQ(text, "");
    EXPECT_EQ(user::proc_write("trak/debug", "3\n"), 2);
    EXPECT_EQ(written, "3\n");
    EXPECT_EQ(user::proc_write("trak/uuid", "x"), -EACCES);
    EXPECT_EQ(user::proc_read("trak", &text), -EISDIR);
    EXPECT_EQ(user::proc_read("trak/none", &text), -ENOENT);

    std::vector<user::ProcInfo> list;
    EXPECT_EQ(user::proc_list("", &list), 0);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].mode, std::uint32_t{S_IFDIR | 0555});
    EXPECT_EQ(user::proc_list("trak", &list), 0);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[1].name, "debug");
    EXPECT_EQ(list[1].mode, std::uint32_t{S_IFREG | 0644});
    EXPECT_EQ(user::proc_list("trak/uuid", &list), -ENOTDIR);
    user::ProcInfo info;
    EXPECT_EQ(user::proc_stat("trak/uuid", &info), 0);
    EXPECT_EQ(info.name, "uuid");

    EXPECT_EQ(os_proc_first_child(folder), shown);
    EXPECT_EQ(os_proc_next(shown), taken);
    EXPECT_EQ(os_proc_next(taken), nullptr);
    os_remove_proc_entry(shown);
    os_remove_proc_entry(taken);
    os_remove_proc_entry(folder);
    EXPECT_EQ(user::proc_stat("trak", &info), -ENOENT);
}

struct Held {
    os_completion entered, leave;
    std::atomic<bool> removed{false};
    bool removed_while_reading = false;
};

int read_held(char *page, char **, long, int, int *, void *data) {
    Held *held = static_cast<Held *>(data);
    os_complete(&held->entered);
    os_wait_for_completion(&held->leave);
    held->removed_while_reading = held->removed;
    page[0] = 'x';
    return 1;
}

TEST_F(user_files, removing_a_proc_file_waits_for_its_readers) {
    Held held;
    os_init_completion(&held.entered);
    os_init_completion(&held.leave);
    os_proc_entry *entry = os_create_proc_entry("slow", 0444, nullptr);
    os_proc_set_ops(entry, read_held, nullptr, &held);
    std::string text;
    std::thread reader([&] { EXPECT_EQ(user::proc_read("slow", &text), 0); });
    os_wait_for_completion(&held.entered);
    std::thread remover([&] {
        os_remove_proc_entry(entry);
        held.removed = true;
    });
    // New readers are turned away as soon as the removal has begun.
    user::ProcInfo info;
    EXPECT_TRUE(eventually([&] { return user::proc_stat("slow", &info) == -ENOENT; }));
    EXPECT_FALSE(held.removed.load());
    os_complete(&held.leave);
    reader.join();
    remover.join();
    EXPECT_FALSE(held.removed_while_reading);
    EXPECT_EQ(text, "x");
}

// ---- the control device ------------------------------------------------------------------------------

int control(void *, void *, std::uint32_t cmd, unsigned long arg) {
    std::uint32_t value;
    if (os_copy_from_user(&value, arg, sizeof(value)))
        return -EFAULT;
    value += cmd;
    return os_copy_to_user(arg, &value, sizeof(value)) ? -EFAULT : 0;
}

TEST_F(user_files, commands_reach_the_driver_with_their_record) {
    const os_file_operations fops = {nullptr, nullptr, control, nullptr, nullptr};
    EXPECT_EQ(user::chr_ioctl(1, 0), -ENODEV);
    EXPECT_EQ(user::chr_open(), -ENODEV);
    ASSERT_EQ(os_register_chrdev(100, "trak", &fops), 0);
    EXPECT_EQ(os_register_chrdev(100, "trak", &fops), -EBUSY);
    EXPECT_EQ(user::chr_major(), 100);
    int references = user::module_references();
    ASSERT_EQ(user::chr_open(), 0);
    EXPECT_EQ(user::module_references(), references + 1);
    user_testing::Bytes record = {5, 0, 0, 0};
    {
        user::CallerScope scope(user::Caller{getpid(), 0x7000, record});
        EXPECT_EQ(user::chr_ioctl(3, 0x7000), 0);
        EXPECT_EQ(user::chr_ioctl(3, 0x10), -EFAULT);
    }
    EXPECT_EQ(record[0], 8);
    user::chr_release();
    EXPECT_EQ(user::module_references(), references);
    os_unregister_chrdev(100, "trak");
    EXPECT_EQ(user::chr_major(), 0);
    int major = os_register_chrdev(0, "trak", &fops);
    EXPECT_GT(major, 0);
    EXPECT_EQ(user::chr_major(), major);
    os_unregister_chrdev(static_cast<std::uint32_t>(major), "trak");
}

}  // namespace
