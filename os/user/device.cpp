// os/user/device.cpp: opening devices by number, and what an open device says of itself
// SPDX-License-Identifier: GPL-2.0-only
//
// One os_bdev per device number, shared by all who have it open. Opening is two steps: the entry is
// found or made under the tables' mutex and counted as used, then the driver's open operation (or the
// opening of the file) runs under the entry's own mutex. A node that is taken down meanwhile is no
// longer in the table; whoever already passed the first step hears the driver's refusal.
#include "os/user/device.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "os/user/internal.h"
#include "os/user/task.h"

namespace user {

namespace {

// What a disk that is not the driver's looks like: one per open device.
os_disk *make_plain_disk(os_dev_t dev) {
    os_disk *disk = new os_disk;
    disk->major = os_major(dev);
    disk->first_minor = os_minor(dev);
    disk->queue = new os_queue;
    return disk;
}

// The entry of the device with one more user; null: there is no such node.
os_bdev *use_bdev(os_dev_t dev) {
    Devices &all = devices();
    Guard held(all.mutex);
    auto node = all.nodes.find(dev);
    bool ours = all.majors.count(os_major(dev)) != 0;
    if (ours && node == all.nodes.end())
        return nullptr;
    auto found = all.open.find(dev);
    if (found != all.open.end()) {
        // Somebody is still on a node that was taken down, and a new one has its number.
        if (ours && found->second->disk != node->second)
            return nullptr;
        found->second->users++;
        return found->second;
    }
    os_bdev *bdev = new os_bdev;
    bdev->dev = dev;
    bdev->users = 1;
    bdev->disk = ours ? node->second : make_plain_disk(dev);
    if (ours)
        get_disk(bdev->disk);
    all.open[dev] = bdev;
    return bdev;
}

void unuse_bdev(os_bdev *bdev) {
    Devices &all = devices();
    {
        Guard held(all.mutex);
        if (--bdev->users)
            return;
        all.open.erase(bdev->dev);
    }
    put_disk(bdev->disk);
    delete bdev;
}

std::string path_of_disk(os_dev_t dev, bool *image) {
    Devices &all = devices();
    Guard held(all.mutex);
    *image = os_major(dev) == kImageMajor;
    if (*image)
        return os_minor(dev) < all.images.size() ? all.images[os_minor(dev)].file : std::string();
    auto known = all.paths.find(dev);
    return known == all.paths.end() ? std::string() : known->second;
}

int open_plain(os_bdev *bdev, std::uint32_t mode) USER_REQUIRES(bdev->open_mutex) {
    bool write = (mode & OS_FMODE_WRITE) != 0;
    if (write ? bdev->for_writes.load() != nullptr : bdev->for_reads.load() != nullptr)
        return 0;
    bool image;
    std::string path = path_of_disk(bdev->dev, &image);
    if (image && path.empty())
        return -ENXIO;
    int err = 0;
    DevNumber number{os_major(bdev->dev), os_minor(bdev->dev)};
    std::unique_ptr<Backing> backing = open_backing(path, !image, number, write, &err);
    if (!backing)
        return err;
    bool first = !bdev->owned[0];
    if (first) {
        bdev->disk->queue.load()->limits = Limits{backing->block_size, backing->can_discard, true};
        bdev->disk->sectors = backing->size >> OS_SECTOR_SHIFT;
        bdev->for_reads = backing.get();
    } else {
        backing->shared = backing->shared && bdev->owned[0]->shared;
    }
    if (backing->writable)
        bdev->for_writes = backing.get();
    bdev->owned[first ? 0 : 1] = std::move(backing);
    return 0;
}

bool is_current_node(const os_bdev *bdev) {
    Guard held(devices().mutex);
    auto found = devices().nodes.find(bdev->dev);
    return found != devices().nodes.end() && found->second == bdev->disk;
}

int open_node(os_bdev *bdev, std::uint32_t mode) {
    const os_block_device_operations *ops = bdev->disk->ops;
    if ((mode & OS_FMODE_WRITE) && bdev->disk->read_only)
        return -EACCES;
    int rc = ops->open ? ops->open(bdev, mode) : 0;
    // The driver knows nodes by number: it may have opened the successor of the one that we hold.
    if (!rc && !is_current_node(bdev)) {
        if (ops->release)
            ops->release(bdev->disk, mode);
        rc = -ENXIO;
    }
    return rc;
}

int open_entry(os_bdev *bdev, std::uint32_t mode) {
    Guard held(bdev->open_mutex);
    int rc = is_node(bdev) ? open_node(bdev, mode) : open_plain(bdev, mode);
    if (!rc)
        bdev->openers++;
    return rc;
}

}  // namespace

Devices &devices() {
    static Devices *all = new Devices;  // outlives every thread
    return *all;
}

DevNumber dev_number(dev_t dev) {
    return {gnu_dev_major(dev), gnu_dev_minor(dev)};
}

os_dev_t kernel_dev(dev_t dev) {
    return os_mkdev(gnu_dev_major(dev), gnu_dev_minor(dev));
}

void remember_disk_path(os_dev_t dev, const std::string &path) {
    Devices &all = devices();
    Guard held(all.mutex);
    all.paths[dev] = path;
}

std::string device_leftovers() {
    Devices &all = devices();
    Guard held(all.mutex);
    std::string left;
    for (const auto &[dev, bdev] : all.open)
        left += "open device (" + std::to_string(os_major(dev)) + ", " +
                std::to_string(os_minor(dev)) + ")\n";
    for (const auto &[dev, disk] : all.nodes)
        left += "node " + disk->name + "\n";
    for (const auto &[major, name] : all.majors)
        left += "block major " + std::to_string(major) + "\n";
    return left;
}

void forget_devices() {
    Devices &all = devices();
    Guard held(all.mutex);
    all.images.clear();
    all.paths.clear();
    all.majors.clear();
}

os_bdev *open_device(os_dev_t dev, std::uint32_t mode, int *err) {
    might_sleep("open_device");
    os_bdev *bdev = use_bdev(dev);
    if (!bdev) {
        *err = -ENXIO;
        return nullptr;
    }
    *err = open_entry(bdev, mode);
    if (*err) {
        unuse_bdev(bdev);
        return nullptr;
    }
    return bdev;
}

void close_device(os_bdev *bdev, std::uint32_t mode) {
    might_sleep("close_device");
    {
        Guard held(bdev->open_mutex);
        bdev->openers--;
        if (is_node(bdev) && bdev->disk->ops->release)
            bdev->disk->ops->release(bdev->disk, mode);
    }
    unuse_bdev(bdev);
}

int device_ioctl(os_bdev *bdev, std::uint32_t mode, std::uint32_t cmd, os_uaddr arg) {
    return os_bdev_ioctl(bdev, mode, cmd, arg);
}

}  // namespace user

extern "C" {

os_bdev *os_open_by_devnum(os_dev_t dev, uint32_t mode) {
    int err = 0;
    os_bdev *bdev = user::open_device(dev, mode, &err);
    return bdev ? bdev : static_cast<os_bdev *>(os_err_ptr(err));
}

void os_blkdev_put(os_bdev *bdev, uint32_t mode) {
    user::close_device(bdev, mode);
}

os_dev_t os_bdev_dev(const os_bdev *bdev) {
    return bdev->dev;
}

uint64_t os_bdev_size(const os_bdev *bdev) {
    return bdev->disk->sectors.load() << OS_SECTOR_SHIFT;
}

uint32_t os_bdev_block_size(const os_bdev *bdev) {
    const os_queue *queue = bdev->disk->queue.load();
    return (queue ? queue->limits.load() : user::Limits{}).block_size;
}

uint32_t os_bdev_openers(const os_bdev *bdev) {
    uint32_t own = bdev->openers.load();
    return user::is_node(bdev) ? own : own + user::foreign_openers(bdev);
}

os_disk *os_bdev_disk(const os_bdev *bdev) {
    return bdev->disk;
}

os_queue *os_bdev_queue(const os_bdev *bdev) {
    return bdev->disk->queue.load();
}

int os_bdev_ioctl(os_bdev *bdev, uint32_t mode, uint32_t cmd, os_uaddr arg) {
    const os_block_device_operations *ops = bdev->disk->ops;
    return ops && ops->ioctl ? ops->ioctl(bdev, mode, cmd, arg) : 0;
}

void os_queue_unplug(os_queue *queue) {
    user::plug_pull();
    if (queue && queue->unplug)
        queue->unplug(queue);
}

}  // extern "C"
