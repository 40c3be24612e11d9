// tests/unit/user/loop_test.cpp: real block devices, mounts and freezing, by loop devices
// SPDX-License-Identifier: GPL-2.0-only
//
// Needs the right to mount and a free loop device. Every test mounts in a mount namespace of its own
// and detaches its loop devices by their last close, so nothing is left behind, however it ends.
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <csignal>
#include <thread>

#include "os/file.h"
#include "os/lock.h"
#include "user_testing.h"

extern char **environ;

namespace {

using user_testing::Bytes;
using user_testing::eventually;
using user_testing::Folder;
using user_testing::pattern;

constexpr std::uint64_t kMiB = 1 << 20;

int run_program(std::vector<std::string> words) {
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    int rc = posix_spawnp(&pid, argv[0], &quiet, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&quiet);
    int status = 0;
    if (rc || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A loop device on a file; goes with its last user.
class Loop {
  public:
    explicit Loop(const std::string &file) {
        int backing = open(file.c_str(), O_RDWR | O_CLOEXEC);
        int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        // Somebody else may take the free one in between.
        for (int i = 0; i < 100 && control >= 0 && backing >= 0 && fd_ < 0; i++) {
            int number = ioctl(control, LOOP_CTL_GET_FREE);
            path_ = "/dev/loop" + std::to_string(number);
            int fd = number < 0 ? -1 : open(path_.c_str(), O_RDWR | O_CLOEXEC);
            loop_config config{};
            config.fd = static_cast<std::uint32_t>(backing);
            config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
            if (fd >= 0 && ioctl(fd, LOOP_CONFIGURE, &config) == 0)
                fd_ = fd;
            else if (fd >= 0)
                close(fd);
        }
        if (control >= 0)
            close(control);
        if (backing >= 0)
            close(backing);
    }
    ~Loop() {
        if (fd_ >= 0)
            close(fd_);
    }
    bool ok() const { return fd_ >= 0; }
    const std::string &path() const { return path_; }
    os_dev_t dev() const {
        struct stat st;
        return fstat(fd_, &st) ? 0 : os_mkdev(major(st.st_rdev), minor(st.st_rdev));
    }

  private:
    int fd_ = -1;
    std::string path_;
};

class Mounted {
  public:
    Mounted(const std::string &source, const std::string &point, const char *type)
        : point_(point), ok_(mount(source.c_str(), point.c_str(), type, 0, nullptr) == 0) {}
    ~Mounted() { leave(); }
    void leave() {
        if (ok_)
            umount2(point_.c_str(), MNT_DETACH);
        ok_ = false;
    }
    bool ok() const { return ok_; }

  private:
    std::string point_;
    bool ok_;
};

class user_loop : public user_testing::PlatformTest {
  protected:
    void SetUp() override {
        if (unshare(CLONE_NEWNS) || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr))
            GTEST_SKIP() << "no right to mount here: " << strerror(errno);
        user_testing::make_file(folder_ / "probe", kMiB);
        if (!Loop(folder_ / "probe").ok())
            GTEST_SKIP() << "no loop device can be had here";
        PlatformTest::SetUp();
    }
    std::string make_folder(const std::string &name) {
        std::filesystem::create_directories(folder_ / name);
        return folder_ / name;
    }
    std::string make_file_system(const std::string &name, std::uint64_t size) {
        user_testing::make_file(folder_ / name, size);
        EXPECT_EQ(run_program({"mke2fs", "-q", "-F", "-t", "ext4", folder_ / name}), 0);
        return folder_ / name;
    }
    os_dev_t add_image(const std::string &name, const std::string &file) {
        os_dev_t dev = 0;
        std::string why;
        EXPECT_EQ(user::add_image(name, file, &dev, &why), 0) << why;
        return dev;
    }
    static bool is_mounted(os_bdev *bdev) {
        os_super *super = os_get_super(bdev);
        if (super)
            os_drop_super(super);
        return super != nullptr;
    }
    static os_dev_t sb_dev(const std::string &path) {
        os_dentry *entry = os_path_lookup(path.c_str(), 1);
        if (os_is_err(entry))
            return 0xffffffff;
        os_dev_t dev = os_dentry_sb_dev(entry);
        os_dput(entry);
        return dev;
    }
    // A node that the driver would have made, shown under the name in a tree at `tree`: a file there
    // stands for what the daemon shows.
    void show_node(const std::string &tree, const std::string &name, os_dev_t dev) {
        make_special("/dev/trak/" + name, dev);
        ASSERT_EQ(user::set_tree(tree), 0);
    }
    static void make_special(const std::string &path, os_dev_t dev) {
        os_parent *parent = os_path_parent(path.c_str());
        ASSERT_FALSE(os_is_err(parent));
        os_parent_lock(parent);
        os_dentry *entry = os_lookup_hash(parent);
        EXPECT_EQ(os_vfs_mknod(parent, entry, OS_S_IFBLK | 0600, dev), 0);
        os_dput(entry);
        os_parent_unlock(parent);
        os_parent_put(parent);
    }

    Folder folder_{"/var/tmp"};
};

struct OpenDisk {
    OpenDisk(os_dev_t dev, std::uint32_t mode) : bdev(os_open_by_devnum(dev, mode)) {}
    ~OpenDisk() {
        if (ok())
            os_blkdev_put(bdev, 3);
    }
    bool ok() const { return !os_is_err(bdev); }
    os_bdev *bdev;
};

TEST_F(user_loop, a_real_disk_is_found_by_its_number_and_serves_requests) {
    user_testing::make_file(folder_ / "disk", 2 * kMiB);
    Loop loop(folder_ / "disk");
    ASSERT_TRUE(loop.ok());
    OpenDisk disk(loop.dev(), 3);
    ASSERT_TRUE(disk.ok()) << os_ptr_err(disk.bdev);
    EXPECT_EQ(os_bdev_size(disk.bdev), 2 * kMiB);
    EXPECT_EQ(os_bdev_dev(disk.bdev), loop.dev());
    EXPECT_EQ(os_bdev_openers(disk.bdev), 1u);
    EXPECT_FALSE(is_mounted(disk.bdev));
    Bytes data = pattern(128 * 1024 + 512, 1), back(data.size() + 3);
    ASSERT_EQ(
        user::submit_wait(disk.bdev, OS_BIO_WRITE | OS_BIO_FUA, kMiB, data.data(), data.size()), 0);
    ASSERT_EQ(user::submit_wait(disk.bdev, 0, kMiB, back.data() + 3, data.size()), 0);
    EXPECT_EQ(memcmp(back.data() + 3, data.data(), data.size()), 0);
    ASSERT_EQ(user::submit_wait(disk.bdev, OS_BIO_WRITE | OS_BIO_ZEROES, kMiB, nullptr, 4096), 0);
    ASSERT_EQ(
        user::submit_wait(disk.bdev, OS_BIO_WRITE | OS_BIO_DISCARD, kMiB + 4096, nullptr, 4096), 0);
    ASSERT_EQ(user::submit_wait(disk.bdev, 0, kMiB, back.data(), 8192), 0);
    EXPECT_EQ(Bytes(back.begin(), back.begin() + 8192), Bytes(8192));
    EXPECT_EQ(os_fsync_bdev(disk.bdev), 0);
    os_invalidate_bdev(disk.bdev);
    EXPECT_EQ(user_testing::file_bytes(folder_ / "disk", kMiB + 8192, 512),
              Bytes(data.begin() + 8192, data.begin() + 8192 + 512));
}

TEST_F(user_loop, a_real_disk_is_claimed_while_it_is_open) {
    user_testing::make_file(folder_ / "disk", kMiB);
    Loop loop(folder_ / "disk");
    ASSERT_TRUE(loop.ok());
    int fd;
    {
        OpenDisk disk(loop.dev(), OS_FMODE_WRITE);
        ASSERT_TRUE(disk.ok());
        EXPECT_EQ(open(loop.path().c_str(), O_RDWR | O_EXCL | O_CLOEXEC), -1);
        EXPECT_EQ(errno, EBUSY);
    }
    fd = open(loop.path().c_str(), O_RDWR | O_EXCL | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    OpenDisk shared(loop.dev(), OS_FMODE_WRITE);
    ASSERT_TRUE(shared.ok());
    EXPECT_EQ(os_bdev_openers(shared.bdev), 2u);
    close(fd);
}

TEST_F(user_loop, a_disk_that_does_not_exist_does_not_open) {
    EXPECT_EQ(os_ptr_err(os_open_by_devnum(os_mkdev(7, 0xffff0), OS_FMODE_READ)), -ENXIO);
}

TEST_F(user_loop, a_device_smaller_than_asked_refuses_what_lies_beyond) {
    user_testing::make_file(folder_ / "disk", kMiB);
    Loop loop(folder_ / "disk");
    OpenDisk disk(loop.dev(), 3);
    ASSERT_TRUE(disk.ok());
    // The file under the device shrinks: the kernel still names the old size.
    ASSERT_EQ(truncate((folder_ / "disk").c_str(), 64 * 1024), 0);
    Bytes data(4096);
    EXPECT_EQ(user::submit_wait(disk.bdev, 0, 0, data.data(), data.size()), 0);
    EXPECT_EQ(user::submit_wait(disk.bdev, 0, kMiB, data.data(), data.size()), -EIO);
}

TEST_F(user_loop, a_mounted_disk_is_seen_as_mounted_and_as_open) {
    std::string file = make_file_system("disk", 8 * kMiB);
    Loop loop(file);
    ASSERT_TRUE(loop.ok());
    OpenDisk before(loop.dev(), OS_FMODE_READ);
    EXPECT_FALSE(is_mounted(before.bdev));
    os_blkdev_put(before.bdev, 3);
    Mounted mounted(loop.path(), make_folder("mnt"), "ext4");
    ASSERT_TRUE(mounted.ok()) << strerror(errno);
    before.bdev = os_open_by_devnum(loop.dev(), OS_FMODE_READ);
    ASSERT_TRUE(before.ok());
    EXPECT_TRUE(is_mounted(before.bdev));
    EXPECT_EQ(os_bdev_openers(before.bdev), 2u);
    mounted.leave();
    EXPECT_FALSE(is_mounted(before.bdev));
}

TEST_F(user_loop, an_image_is_mounted_when_a_loop_device_on_it_is) {
    std::string file = make_file_system("image", 8 * kMiB);
    os_dev_t dev = add_image("disk", file);
    OpenDisk disk(dev, 3);
    ASSERT_TRUE(disk.ok());
    EXPECT_EQ(os_bdev_openers(disk.bdev), 1u);
    ASSERT_EQ(link(file.c_str(), (folder_ / "other-name").c_str()), 0);
    {
        Loop loop(folder_ / "other-name");
        ASSERT_TRUE(loop.ok());
        EXPECT_EQ(os_bdev_openers(disk.bdev), 2u);
        EXPECT_FALSE(is_mounted(disk.bdev));
        Mounted mounted(loop.path(), make_folder("mnt"), "ext4");
        ASSERT_TRUE(mounted.ok()) << strerror(errno);
        EXPECT_TRUE(is_mounted(disk.bdev));
        // A file there lies on the image, not on a loop device.
        EXPECT_EQ(sb_dev(folder_ / "mnt"), dev);
        EXPECT_NE(sb_dev(folder_.path()), dev);
    }
    EXPECT_TRUE(eventually([&] { return os_bdev_openers(disk.bdev) == 1; }));
    EXPECT_FALSE(is_mounted(disk.bdev));
}

TEST_F(user_loop, a_file_system_on_a_node_has_the_nodes_number) {
    std::string tree = make_folder("tree");
    Mounted tmpfs("tmpfs", tree, "tmpfs");
    ASSERT_TRUE(tmpfs.ok());
    make_folder("tree/dev/trak");
    std::string file = make_file_system("tree/dev/trak/vol 1", 8 * kMiB);
    os_dev_t node = os_mkdev(100, 3);
    ASSERT_EQ(os_register_blkdev(100, "test"), 0);
    show_node(tree, "vol 1", node);
    Loop loop(file);
    ASSERT_TRUE(loop.ok());
    Mounted mounted(loop.path(), make_folder("mnt with blank"), "ext4");
    ASSERT_TRUE(mounted.ok()) << strerror(errno);
    EXPECT_EQ(sb_dev(folder_ / "mnt with blank/lost+found"), node);
    EXPECT_EQ(sb_dev(tree), 0u);
    // The same tree seen through another mount point.
    Mounted bound(tree + "/dev", make_folder("bound"), nullptr);
    EXPECT_EQ(sb_dev(folder_ / "mnt with blank"), node);
    ASSERT_EQ(user::set_tree(""), 0);
    EXPECT_EQ(sb_dev(folder_ / "mnt with blank"), loop.dev());
    EXPECT_EQ(user::set_tree(folder_ / "mnt"), -ENOENT);
}

struct FreezeWriter {
    std::atomic<bool> stop{false};
    std::atomic<int> writes{0};
    std::thread thread;
    explicit FreezeWriter(const std::string &file)
        : thread([this, file] {
              int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
              while (!stop && fd >= 0 && pwrite(fd, "x", 1, writes) == 1)
                  writes++;
              close(fd);
          }) {}
    ~FreezeWriter() {
        stop = true;
        user::thaw_all();  // a test that failed in between must not wait for ever
        thread.join();
    }
    bool goes_on() {
        int before = writes;
        return eventually([&] { return writes > before; });
    }
};

bool is_frozen_now(const std::string &point) {
    // A file system that is frozen refuses to be frozen again.
    int fd = open(point.c_str(), O_RDONLY | O_CLOEXEC);
    int rc = ioctl(fd, FIFREEZE, 0);
    bool frozen = rc && errno == EBUSY;
    if (!rc)
        ioctl(fd, FITHAW, 0);
    close(fd);
    return frozen;
}

TEST_F(user_loop, freezing_stops_the_file_system_on_the_disk_until_the_thaw) {
    std::string file = make_file_system("image", 8 * kMiB);
    OpenDisk disk(add_image("disk", file), 3);
    ASSERT_TRUE(disk.ok());
    EXPECT_EQ(os_freeze_bdev(disk.bdev), nullptr);  // nothing mounted: nothing stopped
    EXPECT_EQ(os_thaw_bdev(disk.bdev, nullptr), 0);
    Loop loop(file);
    std::string point = make_folder("mnt");
    Mounted mounted(loop.path(), point, "ext4");
    ASSERT_TRUE(mounted.ok());
    FreezeWriter writer(point + "/f");
    ASSERT_TRUE(writer.goes_on());
    os_super *super = os_freeze_bdev(disk.bdev);
    ASSERT_FALSE(os_is_err(super)) << os_ptr_err(super);
    ASSERT_NE(super, nullptr);
    EXPECT_TRUE(is_frozen_now(point));
    os_super *again = os_freeze_bdev(disk.bdev);
    EXPECT_EQ(os_ptr_err(again), -EBUSY);
    EXPECT_TRUE(is_frozen_now(point));
    EXPECT_EQ(os_thaw_bdev(disk.bdev, super), 0);
    EXPECT_FALSE(is_frozen_now(point));
    EXPECT_TRUE(writer.goes_on());
}

TEST_F(user_loop, a_file_system_that_cannot_be_frozen_is_an_error) {
    std::string file = make_file_system("image", 8 * kMiB);
    OpenDisk disk(add_image("disk", file), 3);
    Loop loop(file);
    std::string point = make_folder("mnt");
    Mounted mounted(loop.path(), point, "ext4");
    ASSERT_TRUE(mounted.ok());
    Mounted hidden("tmpfs", point, "tmpfs");  // no path leads to it any more
    ASSERT_TRUE(hidden.ok());
    os_super *super = os_freeze_bdev(disk.bdev);
    EXPECT_TRUE(os_is_err(super));
    EXPECT_NE(user::log_text().find("freezing the file system on "), std::string::npos);
}

TEST_F(user_loop, stopping_the_platform_thaws_what_is_frozen) {
    std::string file = make_file_system("image", 8 * kMiB);
    std::string point = make_folder("mnt");
    Loop loop(file);
    Mounted mounted(loop.path(), point, "ext4");
    ASSERT_TRUE(mounted.ok());
    os_super *super;
    {
        OpenDisk disk(add_image("disk", file), 3);
        super = os_freeze_bdev(disk.bdev);
        ASSERT_FALSE(os_is_err(super));
        EXPECT_TRUE(is_frozen_now(point));
    }
    user::stop();
    EXPECT_FALSE(is_frozen_now(point));
    os_thaw_bdev(nullptr, super);  // says that it was thawed already, and lets the file system go
}

TEST_F(user_loop, a_process_that_exits_thaws_what_is_frozen) {
    std::string file = make_file_system("image", 8 * kMiB);
    std::string point = make_folder("mnt");
    Loop loop(file);
    Mounted mounted(loop.path(), point, "ext4");
    ASSERT_TRUE(mounted.ok());
    user::stop();
    pid_t pid = fork();
    if (pid == 0) {
        alarm(120);
        bool froze = user::start({}, nullptr) == 0;
        os_dev_t dev = 0;
        froze = froze && user::add_image("disk", file, &dev, nullptr) == 0;
        os_bdev *disk = froze ? os_open_by_devnum(dev, OS_FMODE_READ) : nullptr;
        froze = froze && !os_is_err(disk) && !os_is_err(os_freeze_bdev(disk));
        exit(froze && is_frozen_now(point) ? 42 : 1);  // with the file system frozen
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 42);
    EXPECT_FALSE(is_frozen_now(point));
}

TEST_F(user_loop, what_is_mounted_through_nodes_is_listed) {
    std::string tree = make_folder("tree");
    Mounted tmpfs("tmpfs", tree, "tmpfs");
    make_folder("tree/dev/trak");
    std::string file = make_file_system("tree/dev/trak/trak4", 8 * kMiB);
    ASSERT_EQ(os_register_blkdev(100, "test"), 0);
    os_dev_t node = os_mkdev(100, 4);
    show_node(tree, "trak4", node);
    static const os_block_device_operations ops = {nullptr, nullptr, nullptr};
    os_disk *disk = os_alloc_disk(1);
    os_disk_setup(disk, 100, 4, "trak4", &ops);
    os_disk_set_capacity(disk, 8 * kMiB / 512);
    ASSERT_EQ(os_add_disk(disk), 0);
    EXPECT_TRUE(user::mounted_through_nodes().empty());
    Loop loop(file);
    Mounted mounted(loop.path(), make_folder("mnt"), "ext4");
    ASSERT_TRUE(mounted.ok());
    std::vector<user::MountedThrough> list = user::mounted_through_nodes();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].dev, node);
    EXPECT_EQ("/dev/" + list[0].block, loop.path());
    EXPECT_EQ(list[0].mount_point, folder_ / "mnt");
    // The node itself freezes and thaws that file system.
    int err = 0;
    os_bdev *bdev = user::open_device(node, OS_FMODE_READ, &err);
    ASSERT_NE(bdev, nullptr);
    os_super *super = os_freeze_bdev(bdev);
    ASSERT_FALSE(os_is_err(super));
    EXPECT_TRUE(is_frozen_now(folder_ / "mnt"));
    EXPECT_EQ(os_thaw_bdev(bdev, super), 0);
    EXPECT_FALSE(is_frozen_now(folder_ / "mnt"));
    user::close_device(bdev, OS_FMODE_READ);
    os_del_gendisk(disk);
    os_put_disk(disk);
}

TEST_F(user_loop, a_full_file_system_is_an_error_of_the_request) {
    std::string file = make_file_system("small", 4 * kMiB);
    std::string point = make_folder("mnt");
    Loop loop(file);
    Mounted mounted(loop.path(), point, "ext4");
    ASSERT_TRUE(mounted.ok());
    user_testing::make_file(point + "/image", 64 * kMiB);  // sparse: more than there is
    OpenDisk disk(add_image("disk", point + "/image"), 3);
    ASSERT_TRUE(disk.ok());
    Bytes data = pattern(kMiB, 2);
    int failed = 0;
    for (std::uint64_t at = 0; at < 16 * kMiB; at += kMiB) {
        int rc = user::submit_wait(disk.bdev, OS_BIO_WRITE, at, data.data(), data.size());
        EXPECT_TRUE(rc == 0 || rc == -EIO) << rc;
        failed += rc != 0;
    }
    EXPECT_GT(failed, 0);
    EXPECT_NE(user::log_text().find("errno=-28"), std::string::npos);
    os_file *full = os_filp_open((point + "/f").c_str(), OS_O_WRONLY | OS_O_CREAT, 0600);
    if (!os_is_err(full)) {
        std::int64_t pos = 0;
        long rc = 1;
        while (rc > 0)
            rc = os_vfs_write(full, data.data(), data.size(), &pos);
        EXPECT_EQ(rc, -ENOSPC);
        os_filp_close(full);
    }
}

TEST_F(user_loop, a_file_system_mounted_read_only_serves_reads_alone) {
    std::string file = make_file_system("outer", 8 * kMiB);
    std::string point = make_folder("mnt");
    Loop loop(file);
    {
        Mounted writable(loop.path(), point, "ext4");
        ASSERT_TRUE(writable.ok());
        user_testing::make_file(point + "/image", kMiB);
    }
    ASSERT_EQ(mount(loop.path().c_str(), point.c_str(), "ext4", MS_RDONLY, nullptr), 0);
    {
        os_dev_t dev = add_image("disk", point + "/image");
        EXPECT_EQ(os_ptr_err(os_open_by_devnum(dev, OS_FMODE_WRITE)), -EROFS);
        OpenDisk disk(dev, OS_FMODE_READ);
        ASSERT_TRUE(disk.ok());
        Bytes data(4096);
        EXPECT_EQ(user::submit_wait(disk.bdev, 0, 0, data.data(), data.size()), 0);
        EXPECT_EQ(user::submit_wait(disk.bdev, OS_BIO_WRITE, 0, data.data(), data.size()), -EIO);
        EXPECT_EQ(user::submit_wait(disk.bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, nullptr, 0), 0);
    }
    umount2(point.c_str(), MNT_DETACH);
}

}  // namespace
