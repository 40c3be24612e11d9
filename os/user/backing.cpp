// os/user/backing.cpp: finding and opening the file behind a disk
// SPDX-License-Identifier: GPL-2.0-only
//
// Who else has the disk: a block special file is opened exclusively; where somebody else claimed it (a
// mount, a stacked device) it is opened all the same and counted as shared, so that the driver's own
// questions (mounted? openers?) give the answer. An image has no such claim: a lock on it stands for
// that (flock), and every loop device on it counts as an opener.
//
// Direct I/O: always for block special files; for images where the file system says that it takes
// 512-byte requests and a first read shows it. Else through the page cache, where a flush is fdatasync.
#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/stat.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "os/user/device.h"
#include "os/user/internal.h"
#include "os/user/mounts.h"

namespace user {

namespace {

constexpr std::size_t kMaxName = 64;

int open_either_way(const std::string &path, int flags, bool wants_write, bool *writable) {
    *writable = true;
    int fd = open(path.c_str(), flags | O_RDWR | O_CLOEXEC);
    if (fd >= 0 || wants_write || (errno != EACCES && errno != EROFS && errno != EPERM))
        return fd;
    *writable = false;
    return open(path.c_str(), flags | O_RDONLY | O_CLOEXEC);
}

bool is_disk(int fd, DevNumber dev) {
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISBLK(st.st_mode) && dev_number(st.st_rdev) == dev;
}

// The name under which the machine's own tree shows a block device.
std::string name_in_dev(DevNumber dev) {
    std::string text;
    std::string path =
        "/sys/dev/block/" + std::to_string(dev.major) + ":" + std::to_string(dev.minor) + "/uevent";
    if (!read_small_file(path, &text))
        return "";
    std::size_t at = ("\n" + text).find("\nDEVNAME=");
    if (at == std::string::npos)
        return "";
    at += strlen("DEVNAME=");
    return "/dev/" + text.substr(at, text.find('\n', at) - at);
}

std::string sysfs_queue(DevNumber dev) {
    BlockDevice device;
    if (!describe_block("", dev, &device))
        return "";
    return "/sys/block/" + device.whole + "/queue/";
}

void learn_alignment(Backing *backing) {
    struct statx sx {};
#ifdef STATX_DIOALIGN
    if (statx(backing->fd, "", AT_EMPTY_PATH, STATX_DIOALIGN, &sx) == 0 &&
        (sx.stx_mask & STATX_DIOALIGN) && sx.stx_dio_mem_align) {
        backing->memory_align = sx.stx_dio_mem_align;
        backing->offset_align = sx.stx_dio_offset_align;
    }
#endif
}

int open_block(Backing *backing, const std::string &path, DevNumber dev, bool wants_write) {
    int flags = O_DIRECT | O_EXCL;
    int fd = open_either_way(path, flags, wants_write, &backing->writable);
    if (fd < 0 && errno == EBUSY) {
        backing->shared = true;
        fd = open_either_way(path, flags & ~O_EXCL, wants_write, &backing->writable);
    }
    if (fd < 0)
        return -errno;
    backing->fd = fd;
    if (!is_disk(fd, dev))
        return -ENXIO;
    int block_size = 0;
    if (ioctl(fd, BLKGETSIZE64, &backing->size) || ioctl(fd, BLKSSZGET, &block_size))
        return -errno;
    backing->block = backing->direct = true;
    backing->block_size = static_cast<std::uint32_t>(block_size);
    backing->memory_align = backing->offset_align = static_cast<std::size_t>(block_size);
    learn_alignment(backing);
    std::string text;
    backing->can_discard =
        read_small_file(sysfs_queue(dev) + "discard_max_bytes", &text) && text != "0";
    return 0;
}

// True when a read of one sector goes through as direct I/O.
bool direct_read_works(int fd) {
    void *sector = aligned_alloc(OS_PAGE_SIZE, OS_PAGE_SIZE);
    if (!sector)
        return false;
    bool works = pread(fd, sector, OS_SECTOR_SIZE, 0) == OS_SECTOR_SIZE;
    free(sector);
    return works;
}

void try_direct(Backing *backing) {
    backing->memory_align = backing->offset_align = 0;
    learn_alignment(backing);
    bool offered = backing->offset_align && backing->offset_align <= OS_SECTOR_SIZE &&
                   backing->memory_align <= OS_PAGE_SIZE;
    int flags = fcntl(backing->fd, F_GETFL);
    if (offered && fcntl(backing->fd, F_SETFL, flags | O_DIRECT) == 0) {
        backing->direct = direct_read_works(backing->fd);
        if (!backing->direct)
            fcntl(backing->fd, F_SETFL, flags);
    }
    if (!backing->direct)
        backing->memory_align = backing->offset_align = 1;
}

int open_image(Backing *backing, const std::string &path, bool wants_write) {
    backing->fd = open_either_way(path, 0, wants_write, &backing->writable);
    if (backing->fd < 0)
        return -errno;
    struct stat st;
    if (fstat(backing->fd, &st))
        return -errno;
    if (!S_ISREG(st.st_mode) || st.st_size < OS_SECTOR_SIZE)
        return -EINVAL;
    backing->shared = flock(backing->fd, LOCK_EX | LOCK_NB) != 0;
    backing->size = static_cast<std::uint64_t>(st.st_size) / OS_SECTOR_SIZE * OS_SECTOR_SIZE;
    backing->st_dev = st.st_dev;
    backing->st_ino = st.st_ino;
    backing->can_discard = true;
    try_direct(backing);
    return 0;
}

bool is_name(const std::string &name) {
    return !name.empty() && name.size() <= kMaxName && name != "." && name != ".." &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) {
               return isalnum(c) || c == '.' || c == '_' || c == '-';
           });
}

int refuse(int err, const std::string &text, std::string *why) {
    if (why)
        *why = text;
    return err;
}

}  // namespace

Backing::~Backing() {
    if (fd >= 0)
        close(fd);
}

std::unique_ptr<Backing> open_backing(const std::string &path, bool block, DevNumber dev,
                                      bool wants_write, int *err) {
    auto backing = std::make_unique<Backing>();
    backing->name = path;
    *err = block && path.empty() ? -ENXIO : 0;
    if (!block)
        *err = open_image(backing.get(), path, wants_write);
    else if (!*err)
        *err = open_block(backing.get(), path, dev, wants_write);
    if (block && *err && *err != -EBUSY) {
        std::string other = name_in_dev(dev);
        if (!other.empty() && other != path) {
            backing = std::make_unique<Backing>();
            backing->name = other;
            *err = open_block(backing.get(), other, dev, wants_write);
        }
    }
    if (*err)
        backing.reset();
    return backing;
}

bool find_image(const std::string &name, os_dev_t *dev) {
    Devices &all = devices();
    Guard held(all.mutex);
    for (std::uint32_t i = 0; i < all.images.size(); i++)
        if (all.images[i].name == name) {
            *dev = os_mkdev(kImageMajor, i);
            return true;
        }
    return false;
}

int add_image(const std::string &name, const std::string &file, os_dev_t *dev, std::string *why) {
    if (!is_name(name))
        return refuse(-EINVAL, "'" + name + "' is no name for a disk: use letters, digits, . _ -",
                      why);
    char *resolved = realpath(file.c_str(), nullptr);
    int err = errno;
    std::string path = resolved ? resolved : "";
    free(resolved);
    struct stat st;
    if (path.empty() || stat(path.c_str(), &st))
        return refuse(-(path.empty() ? err : errno),
                      "disk " + name + ": " + file + ": " + strerror(path.empty() ? err : errno),
                      why);
    if (S_ISBLK(st.st_mode))
        return refuse(-EINVAL,
                      "disk " + name + ": " + file +
                          " is a block device: name it to the driver as it is",
                      why);
    if (!S_ISREG(st.st_mode))
        return refuse(-EINVAL, "disk " + name + ": " + file + " is not a regular file", why);
    if (st.st_size < OS_SECTOR_SIZE)
        return refuse(-EINVAL, "disk " + name + ": " + file + " is smaller than one sector", why);
    Guard held(devices().mutex);
    for (const Image &image : devices().images)
        if (image.name == name || (image.st_dev == st.st_dev && image.st_ino == st.st_ino))
            return refuse(-EEXIST,
                          "disk " + name + ": " +
                              (image.name == name ? "the name is taken"
                                                  : file + " is disk " + image.name + " already"),
                          why);
    if (dev)
        *dev = os_mkdev(kImageMajor, static_cast<std::uint32_t>(devices().images.size()));
    devices().images.push_back({name, path, st.st_dev, st.st_ino});
    return 0;
}

}  // namespace user
