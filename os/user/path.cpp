// os/user/path.cpp: directory entries of the machine, and of the platform's own two folders
// SPDX-License-Identifier: GPL-2.0-only
//
// /dev/image and /dev/trak are the platform's: they hold the registered images, and the special files
// that the driver makes for its nodes. They hide folders of these names on the machine, have no
// subfolders, and nothing of theirs is on any file system. Everything else is the machine's.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>

#include "os/file.h"
#include "os/user/device.h"
#include "os/user/internal.h"
#include "os/user/sync.h"
#include "os/user/task.h"

struct os_dentry {
    std::string name;
    bool positive = false;
    bool own = false;  // in the platform's tree
    struct stat st {};
};

struct os_parent {
    int fd = -1;         // O_PATH of a folder of the machine
    std::string folder;  // "image" or "trak" in the platform's tree, else empty
    std::string last;
    bool normal = false;
    bool tail = false;
    std::shared_ptr<user::Mutex> mutex;

    ~os_parent() {
        if (fd >= 0)
            close(fd);
    }
};

namespace user {

namespace {

struct Names {
    Mutex mutex;
    std::map<std::string, DevName> trak USER_GUARDED_BY(mutex);
    std::map<std::string, std::shared_ptr<Mutex>> folders USER_GUARDED_BY(mutex);
};

Names &names() {
    static Names *all = new Names;
    return *all;
}

template <typename T> T *error(int err) {
    return static_cast<T *>(os_err_ptr(err));
}

// One mutex per folder, for as long as somebody is in it.
std::shared_ptr<Mutex> folder_mutex(const std::string &key) {
    Guard held(names().mutex);
    auto &folders = names().folders;
    for (auto it = folders.begin(); it != folders.end();)
        it = it->second.use_count() == 1 ? folders.erase(it) : std::next(it);
    std::shared_ptr<Mutex> &mutex = folders[key];
    if (!mutex)
        mutex = std::make_shared<Mutex>();
    return mutex;
}

void fill_special(os_dentry *entry, std::uint32_t mode, os_dev_t dev) {
    entry->positive = true;
    entry->st.st_mode = mode;
    entry->st.st_rdev = gnu_dev_makedev(os_major(dev), os_minor(dev));
    entry->st.st_ino = (std::uint64_t{1} << 32) + dev;
}

// The entry as it is now; without an inode where there is none.
void fill_own(os_dentry *entry, const std::string &folder) {
    os_dev_t dev;
    entry->own = true;
    if (folder == "image") {
        if (find_image(entry->name, &dev))
            fill_special(entry, OS_S_IFBLK | 0600, dev);
        return;
    }
    Guard held(names().mutex);
    auto found = names().trak.find(entry->name);
    if (found != names().trak.end())
        fill_special(entry, found->second.mode, found->second.dev);
}

os_dentry *lookup_own(const std::string &folder, const std::string &name) {
    auto entry = std::make_unique<os_dentry>();
    entry->name = name.empty() ? folder : name;
    if (name.empty()) {
        entry->own = entry->positive = true;
        entry->st.st_mode = S_IFDIR | 0755;
        entry->st.st_ino = folder == "image" ? 1 : 2;
        return entry.release();
    }
    fill_own(entry.get(), folder);
    return entry->positive ? entry.release() : error<os_dentry>(-ENOENT);
}

os_dentry *lookup_machine(const std::string &path, bool follow) {
    int fd = open(path.c_str(), O_PATH | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW));
    if (fd < 0)
        return error<os_dentry>(-errno);
    auto entry = std::make_unique<os_dentry>();
    int rc = fstat(fd, &entry->st) ? -errno : 0;
    close(fd);
    if (rc)
        return error<os_dentry>(rc);
    std::size_t end = path.find_last_not_of('/');
    std::size_t start = end == std::string::npos ? end : path.rfind('/', end);
    entry->name = end == std::string::npos ? "/" : path.substr(start + 1, end - start);
    entry->positive = true;
    if (S_ISBLK(entry->st.st_mode))
        remember_disk_path(kernel_dev(entry->st.st_rdev), path);
    return entry.release();
}

void tell_name(const DevName &name, void (Listener::*what)(const DevName &)) {
    Guard held(devices().listener_mutex);
    if (devices().listener)
        (devices().listener->*what)(name);
}

int make_own(const std::string &folder, const std::string &name, std::uint32_t mode, os_dev_t dev) {
    if (folder != "trak")
        return -EROFS;
    DevName made{name, mode, dev};
    {
        Guard held(names().mutex);
        if (!names().trak.emplace(name, made).second)
            return -EEXIST;
    }
    tell_name(made, &Listener::name_added);
    return 0;
}

int unlink_own(const std::string &folder, const std::string &name) {
    if (folder != "trak")
        return -EROFS;
    DevName gone;
    {
        Guard held(names().mutex);
        auto found = names().trak.find(name);
        if (found == names().trak.end())
            return -ENOENT;
        gone = found->second;
        names().trak.erase(found);
    }
    tell_name(gone, &Listener::name_removed);
    return 0;
}

// Cuts the last component off: what is above, and whether slashes followed it.
void split_last(const std::string &path, std::string *above, os_parent *parent) {
    std::size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) {
        *above = "/";
        return;
    }
    parent->tail = end + 1 < path.size();
    std::size_t slash = path.rfind('/', end);
    parent->last = path.substr(slash + 1, end - slash);
    *above = path.substr(0, slash + 1);
    parent->normal = parent->last != "." && parent->last != "..";
}

int open_parent(const std::string &above, os_parent *parent) {
    std::string name;
    if (split_own_path(above, &parent->folder, &name)) {
        parent->mutex = folder_mutex(parent->folder);
        return name.empty() ? 0 : -ENOENT;
    }
    parent->fd = open(above.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    struct stat st;
    if (parent->fd < 0 || fstat(parent->fd, &st))
        return -errno;
    parent->mutex = folder_mutex(std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino));
    return 0;
}

}  // namespace

bool split_own_path(const std::string &path, std::string *folder, std::string *name) {
    std::string folded;
    for (char c : path)
        if (c != '/' || !folded.ends_with('/'))
            folded += c;
    for (const char *own : {"image", "trak"}) {
        std::string top = std::string("/dev/") + own;
        if (!folded.starts_with(top) || (folded.size() > top.size() && folded[top.size()] != '/'))
            continue;
        *folder = own;
        *name = folded.size() > top.size() ? folded.substr(top.size() + 1) : "";
        return true;
    }
    return false;
}

std::vector<DevName> dev_names() {
    Guard held(names().mutex);
    std::vector<DevName> list;
    for (const auto &[name, entry] : names().trak)
        list.push_back(entry);
    return list;
}

void forget_names() {
    Guard held(names().mutex);
    names().trak.clear();
}

}  // namespace user

extern "C" {

os_dentry *os_path_lookup(const char *path, int follow) {
    user::might_sleep("os_path_lookup");
    std::string folder, name;
    if (path[0] != '/')
        return user::error<os_dentry>(-EINVAL);
    if (user::split_own_path(path, &folder, &name))
        return user::lookup_own(folder, name);
    return user::lookup_machine(path, follow != 0);
}

void os_dput(os_dentry *dentry) {
    delete dentry;
}

bool os_dentry_positive(const os_dentry *dentry) {
    return dentry->positive;
}

const char *os_dentry_name(const os_dentry *dentry) {
    return dentry->name.c_str();
}

uint32_t os_dentry_mode(const os_dentry *dentry) {
    return dentry->st.st_mode;
}

const void *os_dentry_inode(const os_dentry *dentry) {
    return dentry->positive ? &dentry->st : nullptr;
}

uint64_t os_dentry_ino(const os_dentry *dentry) {
    return dentry->st.st_ino;
}

os_dev_t os_dentry_rdev(const os_dentry *dentry) {
    return user::kernel_dev(dentry->st.st_rdev);
}

os_dev_t os_dentry_sb_dev(const os_dentry *dentry) {
    return dentry->own || !dentry->positive ? 0 : user::device_seen_through(dentry->st.st_dev);
}

os_parent *os_path_parent(const char *path) {
    user::might_sleep("os_path_parent");
    if (path[0] != '/')
        return user::error<os_parent>(-EINVAL);
    auto parent = std::make_unique<os_parent>();
    std::string above;
    user::split_last(path, &above, parent.get());
    int rc = user::open_parent(above, parent.get());
    return rc ? user::error<os_parent>(rc) : parent.release();
}

void os_parent_put(os_parent *parent) {
    delete parent;
}

void os_parent_lock(os_parent *parent) USER_NO_ANALYSIS {
    parent->mutex->lock();
}

void os_parent_unlock(os_parent *parent) USER_NO_ANALYSIS {
    parent->mutex->unlock();
}

bool os_parent_last_is_normal(const os_parent *parent) {
    return parent->normal;
}

bool os_parent_last_has_tail(const os_parent *parent) {
    return parent->tail;
}

os_dentry *os_lookup_hash(os_parent *parent) {
    auto entry = std::make_unique<os_dentry>();
    entry->name = parent->last;
    if (!parent->folder.empty()) {
        user::fill_own(entry.get(), parent->folder);
        return entry.release();
    }
    if (fstatat(parent->fd, parent->last.c_str(), &entry->st, AT_SYMLINK_NOFOLLOW) == 0)
        entry->positive = true;
    else if (errno != ENOENT)
        return user::error<os_dentry>(-errno);
    return entry.release();
}

int os_vfs_unlink(os_parent *parent, os_dentry *dentry) {
    if (!dentry->positive)
        return -ENOENT;
    if (!parent->folder.empty())
        return user::unlink_own(parent->folder, dentry->name);
    return unlinkat(parent->fd, dentry->name.c_str(), 0) ? -errno : 0;
}

int os_vfs_mknod(os_parent *parent, os_dentry *dentry, uint32_t mode, os_dev_t dev) {
    if (dentry->positive)
        return -EEXIST;
    if (!parent->folder.empty())
        return user::make_own(parent->folder, dentry->name, mode, dev);
    dev_t host = gnu_dev_makedev(os_major(dev), os_minor(dev));
    return mknodat(parent->fd, dentry->name.c_str(), mode, host) ? -errno : 0;
}

}  // extern "C"
