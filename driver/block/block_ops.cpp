// driver/block/block_ops.cpp: what the kernel asks of a node's disk: open, release, ioctl, unplug
// SPDX-License-Identifier: GPL-2.0-only
//
// A node is found by its minor, and must be the one that the disk at hand was made for: a node whose
// table entry was emptied (see orphans.h) counts as unknown, even where another node has
// taken its minor.
#include "driver/block/bitmap_file.h"
#include "driver/block/lifecycle.h"
#include "driver/block/orphans.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "os/task.h"
#include "os/uaccess.h"

namespace {

constexpr std::uint32_t ioc_write = 1;  // the caller's memory is read
constexpr std::uint32_t ioc_read = 2;   // the caller's memory is written

// The record that a disk was made for; not to be looked into before the table confirms it.
const void *record_of(os_disk *disk) {
    os_queue *queue = disk != nullptr ? os_disk_queue(disk) : nullptr;
    return queue != nullptr ? os_queue_data(queue) : nullptr;
}

trak_device *find_device_of(os_disk *disk, std::uint32_t minor)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    trak_device *dev = trak_find_device(minor);
    return dev == record_of(disk) ? dev : nullptr;
}

const char *ioctl_name(std::uint32_t cmd) {
    switch (cmd) {
    case 0x1260:
        return "BLKGETSIZE";
    case 0x125d:
        return "BLKROSET";
    case 0x125e:
        return "BLKROGET";
    case 0x1262:
        return "BLKRASET";
    case 0x1263:
        return "BLKRAGET";
    case 0x1261:
        return "BLKFLSBUF";
    case 0x1268:
        return "BLKSSZGET";
    case 0x1269:
        return "BLKPG";
    case 0x80081270:
        return "BLKBSZGET";
    case 0x40081271:
        return "BLKBSZSET";
    default:
        return "UNKNOWN";
    }
}

// Whether the memory that the command's code speaks of lies within the caller's address space.
bool argument_accessible(std::uint32_t cmd, os_uaddr arg) {
    const std::uint32_t direction = TRAK_IOC_DIR(cmd);
    const std::size_t size = TRAK_IOC_SIZE(cmd);
    if ((direction & ioc_read) != 0 && !os_access_ok(OS_VERIFY_WRITE, arg, size))
        return false;
    return (direction & ioc_write) == 0 || os_access_ok(OS_VERIFY_READ, arg, size);
}

// The disk under a node, or null for a snap without a filter.
os_bdev *filtered_disk(const trak_device *dev) {
    if (!trak_is_filter(dev))
        dev = dev->snap.filter;
    return dev != nullptr && trak_is_filter(dev) ? dev->filter.hdd_bdev : nullptr;
}

int open_locked(trak_device *dev, os_bdev *bdev) {
    const zumutex_guard mutex(&dev->dev_mutex);
    dev->use_cnt.add(1);
    if (trak_read_once(dev->started) != 0) {
        dev->last_open_bdev = bdev;
        trak_log(TRAK_LOG_DETAIL, "%s(): bdev=%p", "trak_block_open", static_cast<void *>(bdev));
        return 0;
    }
    trak_log(TRAK_LOG_ERROR, "%s(): trak(%d, %d) hasn't been started yet.", "trak_block_open",
             trak_blk_major, dev->minor);
    dev->use_cnt.sub(1);
    return -EIO;
}

int trak_block_open(os_bdev *bdev, std::uint32_t /*mode*/) {
    const std::uint32_t minor = os_minor(os_bdev_dev(bdev));
    trak_logf(TRAK_LOG_COMMAND, "%s(): Opening trak(%d, %d)", trak_blk_major, minor);
    os_module_get();
    int rc = -EINVAL;
    {
        const zuread_guard table(&trak_blkdev_rwlock);
        trak_device *dev = find_device_of(os_bdev_disk(bdev), minor);
        if (dev != nullptr)
            rc = open_locked(dev, bdev);
        else
            trak_logf(TRAK_LOG_ERROR, "%s(): Unable to find trak(%d, %d)", trak_blk_major, minor);
    }
    if (rc != 0)
        os_module_put();
    return rc;
}

void drop_opener_locked(trak_device *dev) TRAK_REQUIRES(dev->dev_mutex) {
    if (dev->use_cnt.sub(1) == 0)
        dev->last_open_bdev = nullptr;
}

int trak_block_release(os_disk *disk, std::uint32_t /*mode*/) {
    const std::uint32_t minor = os_disk_first_minor(disk);
    trak_logf(TRAK_LOG_COMMAND, "%s(): Releasing trak(%d, %d)", trak_blk_major, minor);
    const zuread_guard table(&trak_blkdev_rwlock);
    trak_device *dev = find_device_of(disk, minor);
    if (dev == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Unable to find trak(%d, %d)", trak_blk_major, minor);
        // Unload must not wait for an opener that has gone, nor a snap's start freeze through it.
        if (trak_device *orphan = trak_find_orphan(record_of(disk))) {
            const zumutex_guard mutex(&orphan->dev_mutex);
            drop_opener_locked(orphan);
        }
        return -EINVAL;
    }
    const zumutex_guard mutex(&dev->dev_mutex);
    if (trak_is_filter(dev))
        trak_block_save_dirty_bmps(&dev->filter);
    drop_opener_locked(dev);
    os_module_put();
    return 0;
}

int trak_block_ioctl(os_bdev *bdev, std::uint32_t mode, std::uint32_t cmd, os_uaddr arg) {
    const std::uint32_t minor = os_minor(os_bdev_dev(bdev));
    const zuread_guard table(&trak_blkdev_rwlock);
    const trak_device *dev = find_device_of(os_bdev_disk(bdev), minor);
    if (dev == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Unknown device trak(%d, %d)", trak_blk_major, minor);
        return -EINVAL;
    }
    trak_logf(TRAK_LOG_COMMAND, "%s(): cmd=0x%x (%s)", cmd, ioctl_name(cmd));
    if (!argument_accessible(cmd, arg))
        return -EFAULT;
    os_bdev *disk = filtered_disk(dev);
    if (disk == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Internal error: fdev==NULL.");
        return -EIO;
    }
    return os_bdev_ioctl(disk, mode, cmd, arg);
}

// An unplug of a node unplugs the disk under it. The node is open, so its record is there.
void unplug_disk_of(os_queue *queue) {
    const auto *dev = static_cast<const trak_device *>(os_queue_data(queue));
    os_bdev *disk = filtered_disk(dev);
    if (disk != nullptr)
        os_queue_unplug(os_bdev_queue(disk));
}

}  // namespace

constexpr os_block_device_operations trak_bdops = {
    .open = trak_block_open,
    .release = trak_block_release,
    .ioctl = trak_block_ioctl,
};

void trak_unplug_filter(os_queue *queue) {
    unplug_disk_of(queue);
}

void trak_unplug_snap(os_queue *queue) {
    unplug_disk_of(queue);
}
