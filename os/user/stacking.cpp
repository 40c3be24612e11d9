// os/user/stacking.cpp: loop devices on nodes and images, what is mounted through them, freezing
// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel knows a file system on a node only as one on a loop device whose backing file lies in the
// daemon's own tree. Here the loop device is seen as the node: the backing file's path, as /sys names
// it, lies on the mount of the tree, and its name below dev/trak is the node's. No file of the tree
// is ever touched for that: it would be a request to ourselves.
//
// A file system that is frozen is kept in a table of descriptors that a signal handler can walk.
#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "os/bdev.h"
#include "os/log.h"
#include "os/user/device.h"
#include "os/user/internal.h"
#include "os/user/mounts.h"
#include "os/user/sync.h"

namespace user {

namespace {

Mutex tree_mutex;
bool tree_known USER_GUARDED_BY(tree_mutex) = false;
DevNumber tree_dev USER_GUARDED_BY(tree_mutex);

std::array<std::atomic<int>, 64> frozen;  // descriptor + 1; 0: free

bool is_tree(const Mount &mount) {
    Guard held(tree_mutex);
    return tree_known && mount.dev == tree_dev;
}

os_dev_t node_by_file(const Mount &mount, const std::string &path) {
    constexpr std::string_view kFolder = "/dev/trak/";
    std::string inside = path_in_file_system(mount, path);
    if (!inside.starts_with(kFolder))
        return 0;
    for (const DevName &name : dev_names())
        if (inside.compare(kFolder.size(), std::string::npos, name.name) == 0)
            return name.dev;
    return 0;
}

bool holds_an_image(const Mount &mount) {
    Guard held(devices().mutex);
    for (const Image &image : devices().images)
        if (dev_number(image.st_dev) == mount.dev)
            return true;
    return false;
}

os_dev_t disk_by_file(const Mount *mount, const std::string &path) {
    // A stranger's FUSE file system may not answer; ask only one that holds an image of ours.
    if (mount && mount->type.starts_with("fuse") && !holds_an_image(*mount))
        return 0;
    struct stat st;
    if (stat(path.c_str(), &st))
        return 0;
    if (S_ISBLK(st.st_mode))
        return kernel_dev(st.st_rdev);
    Devices &all = devices();
    Guard held(all.mutex);
    for (std::uint32_t i = 0; i < all.images.size(); i++)
        if (all.images[i].st_dev == st.st_dev && all.images[i].st_ino == st.st_ino)
            return os_mkdev(kImageMajor, i);
    return 0;
}

os_dev_t device_behind(const std::vector<Mount> &mounts, const std::string &backing_file) {
    const Mount *mount = mount_of(mounts, backing_file);
    if (mount && is_tree(*mount))
        return node_by_file(*mount, backing_file);
    return disk_by_file(mount, backing_file);
}

// Mounts whose file system lies on the device, itself or through a loop device; each file system once.
std::vector<Mount> mounts_on(os_dev_t dev) {
    std::vector<Mount> mounts = read_mounts("");
    std::vector<Mount> found;
    for (const Mount &mount : mounts) {
        BlockDevice device;
        bool seen = false;
        for (const Mount &before : found)
            seen = seen || before.dev == mount.dev;
        if (seen || !mount.dev.major || !describe_block("", mount.dev, &device))
            continue;
        if (os_mkdev(mount.dev.major, mount.dev.minor) == dev ||
            (!device.backing_file.empty() && device_behind(mounts, device.backing_file) == dev))
            found.push_back(mount);
    }
    return found;
}

// A descriptor of the file system itself, by any of its mount points that leads to it.
int open_file_system(DevNumber dev) {
    int err = -ENOENT;
    for (const Mount &mount : read_mounts("")) {
        if (mount.dev != dev)
            continue;
        int fd = open(mount.mount_point.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd < 0)
            err = -errno;
        else if (fstat(fd, &st) == 0 && dev_number(st.st_dev) == dev)
            return fd;
        else
            close(fd);
    }
    return err;
}

bool remember_frozen(int fd) {
    for (std::atomic<int> &slot : frozen) {
        int none = 0;
        if (slot.compare_exchange_strong(none, fd + 1))
            return true;
    }
    return false;
}

int thaw(int fd) {
    int rc = ioctl(fd, FITHAW, 0) ? -errno : 0;
    for (std::atomic<int> &slot : frozen) {
        int value = fd + 1;
        slot.compare_exchange_strong(value, 0);
    }
    return rc;
}

}  // namespace

}  // namespace user

// The file systems that one freeze stopped, or null descriptors' absence: just a reference.
struct os_super {
    std::vector<int> fds;
};

namespace user {

namespace {

int freeze_one(DevNumber dev, os_super *super) {
    int fd = open_file_system(dev);
    if (fd < 0)
        return fd;
    // Noted first: a process that dies in between thaws one too many rather than one too few.
    int rc = remember_frozen(fd) ? 0 : -ENFILE;
    if (!rc && ioctl(fd, FIFREEZE, 0)) {
        rc = -errno;
        for (std::atomic<int> &slot : frozen) {
            int value = fd + 1;
            slot.compare_exchange_strong(value, 0);
        }
    }
    if (rc)
        close(fd);
    else
        super->fds.push_back(fd);
    return rc;
}

int thaw_super(os_super *super) {
    int rc = 0;
    for (int fd : super->fds) {
        int err = thaw(fd);
        rc = rc ? rc : err;
        close(fd);
    }
    delete super;
    return rc;
}

}  // namespace

void thaw_all() noexcept {
    for (std::atomic<int> &slot : frozen) {
        int fd = slot.exchange(0) - 1;
        if (fd >= 0)
            ioctl(fd, FITHAW, 0);
    }
}

os_dev_t device_behind_loop(const std::string &backing_file) {
    return device_behind(read_mounts(""), backing_file);
}

os_dev_t device_seen_through(dev_t dev) {
    BlockDevice device;
    DevNumber number = dev_number(dev);
    if (!number.major)
        return 0;
    if (describe_block("", number, &device) && !device.backing_file.empty()) {
        os_dev_t behind = device_behind_loop(device.backing_file);
        Guard held(devices().mutex);
        if (os_major(behind) == kImageMajor || devices().majors.count(os_major(behind)))
            return behind;
    }
    return kernel_dev(dev);
}

unsigned foreign_openers(const os_bdev *bdev) {
    const Backing *backing = bdev->for_reads.load();
    unsigned others = backing && backing->shared ? 1 : 0;
    std::vector<Mount> mounts = read_mounts("");
    for (const BlockDevice &loop : loop_devices(""))
        if (device_behind(mounts, loop.backing_file) == bdev->dev)
            others++;
    return others;
}

int set_tree(const std::string &mount_point) {
    if (mount_point.empty()) {
        Guard held(tree_mutex);
        tree_known = false;
        return 0;
    }
    // The path is resolved by the folder above: the tree itself must not be asked.
    std::string path = mount_point;
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    std::size_t slash = path.rfind('/');
    std::string above = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    char *resolved = realpath(above.c_str(), nullptr);
    if (!resolved)
        return -errno;
    std::string folder = resolved;
    free(resolved);
    path = (folder == "/" ? "" : folder) + "/" + path.substr(slash + 1);
    int rc = -ENOENT;
    for (const Mount &mount : read_mounts("")) {
        if (mount.mount_point != path)
            continue;
        Guard held(tree_mutex);
        tree_known = true;
        tree_dev = mount.dev;  // the last one is on top
        rc = 0;
    }
    return rc;
}

std::vector<MountedThrough> mounted_through_nodes() {
    std::vector<MountedThrough> list;
    for (const NodeInfo &node : nodes())
        for (const Mount &mount : mounts_on(node.dev)) {
            BlockDevice device;
            describe_block("", mount.dev, &device);
            list.push_back({node.dev, device.name, mount.mount_point});
        }
    return list;
}

}  // namespace user

extern "C" {

os_super *os_get_super(os_bdev *bdev) {
    return user::mounts_on(bdev->dev).empty() ? nullptr : new os_super;
}

void os_drop_super(os_super *super) {
    delete super;
}

int os_fsync_bdev(os_bdev *bdev) {
    for (const user::Mount &mount : user::mounts_on(bdev->dev)) {
        int fd = user::open_file_system(mount.dev);
        if (fd < 0)
            continue;
        syncfs(fd);
        close(fd);
    }
    if (user::is_node(bdev))
        return user::submit_wait(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, nullptr, 0);
    const user::Backing *backing = bdev->for_writes.load();
    if (!backing)
        return 0;
    return fsync(backing->fd) ? -errno : 0;
}

void os_invalidate_bdev(os_bdev *bdev) {
    if (const user::Backing *backing = bdev->for_reads.load())
        posix_fadvise(backing->fd, 0, 0, POSIX_FADV_DONTNEED);
}

os_super *os_freeze_bdev(os_bdev *bdev) {
    std::vector<user::Mount> mounts = user::mounts_on(bdev->dev);
    if (mounts.empty())
        return nullptr;
    os_super *super = new os_super;
    for (const user::Mount &mount : mounts) {
        int rc = user::freeze_one(mount.dev, super);
        if (!rc)
            continue;
        os_printk("<3>freezing the file system on %s failed: errno=%d\n", mount.mount_point.c_str(),
                  rc);
        user::thaw_super(super);
        return static_cast<os_super *>(os_err_ptr(rc));
    }
    return super;
}

int os_thaw_bdev(os_bdev *, os_super *super) {
    return super ? user::thaw_super(super) : 0;
}

}  // extern "C"
