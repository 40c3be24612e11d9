// os/sim/freeze.cpp: file systems on devices: mounted or not, frozen or not
// SPDX-License-Identifier: GPL-2.0-only
#include "os/sim/disk.h"
#include "os/sim/storage.h"

struct os_super {
    os_dev_t dev;
};

namespace sim {
namespace {

std::map<os_dev_t, os_super> g_supers;  // handles; which device is all that they say

os_super *super_of(os_dev_t dev) {
    return &(g_supers[dev] = os_super{dev});
}

}  // namespace

FileSystem *file_system_on(os_dev_t dev) {
    auto &systems = kernel().file_systems;
    auto at = systems.find(dev);
    return at == systems.end() ? nullptr : &at->second;
}

bool has_file_system(os_dev_t dev) {
    auto &disks = kernel().storage.impl->disks;
    auto at = disks.find(dev);
    return file_system_on(dev) || (at != disks.end() && at->second->impl->mounted);
}

void attach_file_system(os_dev_t dev) {
    kernel().file_systems.try_emplace(dev, FileSystem{dev, 0, 0, {}, {}, nullptr});
}

void on_freeze(os_dev_t dev, std::function<void()> fn) {
    attach_file_system(dev);
    file_system_on(dev)->on_freeze = std::move(fn);
}

void host_files(const std::string &dir, os_bdev *bdev) {
    if (bdev)
        kernel().hosts[dir + "/"] = bdev;
    else
        kernel().hosts.erase(dir + "/");
}

void touch_host(const std::string &path, Fault kind) {
    for (const auto &[dir, bdev] : kernel().hosts) {
        if (path.compare(0, dir.size(), dir) != 0)
            continue;
        os_bdev *device = bdev;
        join(spawn("file system", [device, kind] {
            Bytes block(OS_PAGE_SIZE);
            const std::uint64_t blocks = device_size(*device) / OS_PAGE_SIZE;
            const std::uint64_t sector = kernel().rng.below(blocks) * (OS_PAGE_SIZE / 512);
            if (kind == Fault::kRead)
                (void)read_device(device, sector, block);
            else
                (void)write_device(device, sector, block);
        }));
        return;
    }
}

void wait_while_frozen(os_dev_t dev) {
    might_sleep("wait_while_frozen");
    FileSystem *fs = file_system_on(dev);
    point();
    while (fs && fs->frozen && !self().in_freeze)
        wait_in(fs->thawed, Wait::kFrozen, fs);
}

bool is_frozen(os_dev_t dev) {
    const FileSystem *fs = file_system_on(dev);
    return fs && fs->frozen;
}

}  // namespace sim

using namespace sim;

extern "C" {

struct os_super *os_get_super(struct os_bdev *bdev) {
    might_sleep("os_get_super");
    os_dev_t dev = os_bdev_dev(bdev);
    point();
    if (!has_file_system(dev))
        return nullptr;
    kernel().supers++;
    return super_of(dev);
}

void os_drop_super(struct os_super *super) {
    if (!super || kernel().supers == 0)
        fail("os_drop_super without os_get_super");
    kernel().supers--;
}

int os_fsync_bdev(struct os_bdev *bdev) {
    might_sleep("os_fsync_bdev");
    os_bdev_dev(bdev);
    point();
    return fault(Fault::kFlush) ? -EIO : 0;  // the machine caches nothing above its disks
}

void os_invalidate_bdev(struct os_bdev *bdev) {
    might_sleep("os_invalidate_bdev");
    os_bdev_dev(bdev);
    point();
}

struct os_super *os_freeze_bdev(struct os_bdev *bdev) {
    might_sleep("os_freeze_bdev");
    os_dev_t dev = os_bdev_dev(bdev);
    check_waits_for(kByRequest, "os_freeze_bdev");
    point();
    FileSystem *fs = file_system_on(dev);
    if (!fs)
        return nullptr;
    if (fault(Fault::kFlush))
        return static_cast<os_super *>(os_err_ptr(-EIO));
    fs->frozen++;
    while (fs->writers)
        wait_in(fs->drained, Wait::kFrozen, fs);
    if (fs->on_freeze && fs->frozen == 1) {
        self().in_freeze = true;
        fs->on_freeze();
        self().in_freeze = false;
    }
    return super_of(dev);
}

int os_thaw_bdev(struct os_bdev *bdev, struct os_super *super) {
    might_sleep("os_thaw_bdev");
    os_dev_t dev = os_bdev_dev(bdev);
    point();
    FileSystem *fs = file_system_on(dev);
    if (!super)
        return 0;
    if (!fs || super->dev != dev || fs->frozen == 0)
        return -EINVAL;
    if (--fs->frozen == 0)
        wake_all(fs->thawed);
    point();
    return 0;
}

}  // extern "C"
