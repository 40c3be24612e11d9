// driver/block/filter.cpp: creation of a filter node, and what snap nodes share with it
// SPDX-License-Identifier: GPL-2.0-only
//
// First the disk is checked and opened, with no lock held (two creations for one disk can both pass the
// test for duplicates). Then one creation at a time goes on: it chooses the minor, fills the record and
// loads the bitmaps, whose files may lie on another node and are read with the node table released; and
// with the table held for writing it places the record and publishes it. Whatever fails there is undone
// in one place, discard_node.
//
// A creation that is refused because its minor is taken empties that minor's table entry. Callers avoid it
// by asking for a free minor, or for any; the node that loses its entry is kept as an orphan.
#include "driver/block/filter.h"

#include "driver/block/bitmap_file.h"
#include "driver/block/lifecycle.h"
#include "driver/block/lock_ranks.h"
#include "driver/block/orphans.h"
#include "driver/block/request.h"
#include "driver/control/proc.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/trak_cowqueue_26.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "os/log.h"
#include "os/memory.h"

namespace {

constexpr const char *me = "trak_ioctl_add_filter_node";
constexpr std::uint64_t max_extents = std::uint64_t{1} << 31;
constexpr std::size_t default_name_size = 16;  // "trak" and a number

// What the creation has found out about the disk.
struct disk_facts {
    os_dev_t dev;
    os_bdev *bdev;
    std::uint64_t size;        // bytes
    std::uint32_t block_size;  // bytes
};

void format_default_name(char name[default_name_size], std::int32_t minor) {
    os_snprintf(name, default_name_size, "trak%d", minor);
}

// The path's device number: 0 or a negative errno.
int find_disk(const char *path, os_dev_t *dev) {
    if (path[0] == '\0') {
        trak_log(TRAK_LOG_ERROR, "%s(): Empty HDD name passed as input.", me);
        return -EINVAL;
    }
    os_dentry *dentry = trak_get_file_dentry(path, 1);
    if (os_is_err(dentry)) {
        trak_log(TRAK_LOG_ERROR, "%s(): Unable to lookup %s: rc=%d", me, path, os_ptr_err(dentry));
        return -ENOENT;
    }
    if (dentry == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Unable to derive major/minor numbers for %s", me, path);
        return -EINVAL;
    }
    const bool is_block = (os_dentry_mode(dentry) & OS_S_IFMT) == OS_S_IFBLK;
    *dev = os_dentry_rdev(dentry);
    os_dput(dentry);
    if (!is_block) {
        trak_log(TRAK_LOG_ERROR, "%s(): %s is not a block device.", me, path);
        return -EINVAL;
    }
    trak_log(TRAK_LOG_COMMAND, "%s(): Successfully derived HDD major=%d, minor=%d", me,
             os_major(*dev), os_minor(*dev));
    return 0;
}

// -EINVAL when a filter over the disk exists already.
int check_duplicate(os_dev_t dev) {
    // A deletion under way may still have to close this disk.
    const zumutex_guard nodes(&trak_nodes_mutex);
    const zuread_guard table(&trak_blkdev_rwlock);
    if (trak_blkdev_arr == nullptr)
        return 0;
    for (std::uint32_t minor = 0; trak_minor_in_range(minor); ++minor) {
        const trak_device *other = trak_find_device(minor);
        if (other == nullptr || !trak_is_filter(other) || other->filter.hdd_dev != dev)
            continue;
        trak_log(TRAK_LOG_ERROR,
                 "%s(): Found a duplicate trak%d node going to the same HDD device %s", me, minor,
                 other->filter.hdd_name);
        return -EINVAL;
    }
    return 0;
}

// Nobody else uses the disk, and nothing of it is in the kernel's caches afterwards.
int check_unused(const trak_add_filter_arg *arg, const disk_facts &disk) {
    if (trak_is_mounted(disk.bdev) != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Can't attach to mounted HDD device %s", me, arg->hdd_name);
        return -EBUSY;
    }
    if (os_bdev_openers(disk.bdev) > 1) {
        trak_log(TRAK_LOG_ERROR, "%s(): Can't attach to an open HDD device %s", me, arg->hdd_name);
        return -EBUSY;
    }
    os_fsync_bdev(disk.bdev);
    os_invalidate_bdev(disk.bdev);
    return 0;
}

int check_extent_size(std::uint32_t size, std::uint32_t block_size) {
    if (size == 0 || trak_size_shift(size) < 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Extent size must be a power of 2", me);
        return -EINVAL;
    }
    if (block_size != 0 && size % block_size != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Extent size must be a multiple of block size (%dB)", me,
                 block_size);
        return -EINVAL;
    }
    if (size < OS_PAGE_SIZE) {
        trak_log(TRAK_LOG_ERROR, "%s(): Extent size can't be smaller than page size (%dB)", me,
                 OS_PAGE_SIZE);
        return -EINVAL;
    }
    return 0;
}

// The chosen minor is in the record: names that follow from it.
void choose_name(trak_add_filter_arg *arg) {
    char name[default_name_size];
    format_default_name(name, arg->minor);
    trak_log(TRAK_LOG_MILESTONE, "%s(): Attaching %s to %s", me, name, arg->hdd_name);
    if (arg->name[0] == '\0')
        trak_strncpy0(arg->name, name, sizeof arg->name);
}

void fill_record(trak_device *dev, const trak_add_filter_arg *arg, const disk_facts &disk) {
    dev->dev_type = TRAK_DEV_FILTER;
    zumutex_init(&dev->dev_mutex, &trak_rank_filter_mutex);
    trak_strncpy0(dev->uuid, arg->uuid, sizeof dev->uuid);
    trak_strncpy0(dev->name, arg->name, sizeof dev->name);
    trak_filter *filter = &dev->filter;
    filter->hdd_dev = disk.dev;
    filter->hdd_bdev = disk.bdev;
    trak_strncpy0(filter->hdd_name, arg->hdd_name, sizeof filter->hdd_name);
    filter->part_minor = static_cast<std::uint32_t>(dev->minor);
    filter->extent_size = arg->extent_size;
    filter->extent_shift = trak_size_shift(arg->extent_size);
    filter->dev_size = disk.size;
    trak_list_init(&filter->snaps);
    zumutex_init(&filter->bmp_mutex, &trak_rank_bmp_mutex);
    os_spin_lock_init(&filter->bmp_spin, &trak_rank_bmp_spin);
}

// Everything counts as changed until a file says otherwise: a load without memory leaves it at that.
std::uint8_t *new_bitmap(std::int32_t size) {
    const auto bytes = static_cast<std::size_t>(size);
    auto *bits = static_cast<std::uint8_t *>(os_vmalloc(bytes));
    if (bits != nullptr)
        memset(bits, 0xff, bytes);
    return bits;
}

// Extents are counted in 32 bits and bitmap bytes with a signed shift of them, so that beyond 2^31
// extents the size comes out as 0 or negative: no memory for that. Counts that wrap are refused likewise.
int alloc_bitmaps(trak_filter *filter) {
    const std::uint64_t extents = ((filter->dev_size - 1) >> filter->extent_shift) + 1;
    filter->extent_cnt = static_cast<std::uint32_t>(extents);
    const std::int32_t size = (static_cast<std::int32_t>(filter->extent_cnt - 1) >> 3) + 1;
    filter->incr_bmp_size = filter->diff_bmp_size = size;
    if (extents <= max_extents) {
        filter->incr_bmp = new_bitmap(size);
        filter->diff_bmp = new_bitmap(size);
    }
    if (filter->incr_bmp != nullptr && filter->diff_bmp != nullptr) {
        filter->incr_bmp_dirty = filter->diff_bmp_dirty = 1;
        return 0;
    }
    trak_log(TRAK_LOG_ERROR, "%s(): Failed to allocate %d+%d bytes of memory for bitmaps", me, size,
             size);
    return -ENOMEM;
}

void name_bitmap_files(trak_filter *filter, const char *dir) {
    trak_strncpy0(filter->bmp_dir, dir, sizeof filter->bmp_dir);
    std::size_t length = trak_strlen(filter->bmp_dir);
    while (length > 1 && filter->bmp_dir[length - 1] == '/')
        filter->bmp_dir[--length] = '\0';
    os_snprintf(filter->incr_bmp_fname, sizeof filter->incr_bmp_fname, "%s/trak%d.incr",
                filter->bmp_dir, filter->part_minor);
    os_snprintf(filter->diff_bmp_fname, sizeof filter->diff_bmp_fname, "%s/trak%d.diff",
                filter->bmp_dir, filter->part_minor);
}

// Fills the record, whose minor is chosen: 0 or a negative errno, with discard_node to follow.
int build_node(trak_device *dev, const trak_add_filter_arg *arg, const disk_facts &disk) {
    trak_filter *filter = &dev->filter;
    fill_record(dev, arg, disk);
    const int rc = alloc_bitmaps(filter);
    if (rc != 0)
        return rc;
    name_bitmap_files(filter, arg->bmp_dir);
    // A file that is missing or no good is no failure here.
    trak_block_load_bmp(filter, TRAK_BMP_DIFF);
    trak_block_load_bmp(filter, TRAK_BMP_INCR);
    return 0;
}

// The filled record becomes a node: 0 or a negative errno, with discard_node to follow.
int publish_node(trak_device *dev, const disk_facts &disk) TRAK_REQUIRES(trak_blkdev_rwlock) {
    trak_filter *filter = &dev->filter;
    const int rc = trak_cowqueue_init(&filter->cowqueue);
    if (rc != 0)
        return rc;
    zurwlock_init(&filter->snap_rwlock, &trak_rank_snap_rwlock);
    filter->write_cnt.store(0);
    if (trak_aio_init(&filter->aio) != 0)
        return -EIO;
    trak_log(TRAK_LOG_DETAIL, "%s(): dev_size=%lld, extent_size=%d, block_size=%d, bmp_size=%d", me,
             static_cast<long long>(filter->dev_size), filter->extent_size, disk.block_size,
             filter->incr_bmp_size);
    return trak_block_add_disk(me, dev, filter->dev_size >> OS_SECTOR_SHIFT, filter->hdd_bdev,
                               trak_unplug_filter);
}

// Gives back what build_node and publish_node made. The bitmaps, and after a failed disk the queue and
// the tracker too, would otherwise stay allocated for good, and the tracker's pools beyond unload.
void discard_node(trak_device *dev, std::int32_t minor) TRAK_REQUIRES(trak_blkdev_rwlock) {
    trak_filter *filter = &dev->filter;
    if (filter->aio.hash != nullptr)
        trak_aio_destroy(&filter->aio, 0);
    if (filter->cowqueue.hash != nullptr)
        trak_cowqueue_destroy(&filter->cowqueue);
    os_vfree(filter->incr_bmp);
    os_vfree(filter->diff_bmp);
    // The entry of the minor that was asked for is emptied whoever stands there. (None is there for a
    // minor that is too big.)
    if (minor >= 0) {
        const auto entry = static_cast<std::uint32_t>(minor);
        if (trak_find_device(entry) == dev)
            trak_blkdev_arr[entry] = nullptr;
        else
            trak_orphan_device(entry);
    }
    os_kfree(dev);
}

int choose_minor(trak_device *dev, trak_add_filter_arg *arg) {
    const zuread_guard table(&trak_blkdev_rwlock);
    const int rc = trak_choose_minor(me, &arg->minor);
    if (rc == 0) {
        dev->minor = arg->minor;
        choose_name(arg);
    }
    return rc;
}

// The last step: 0 with the node there, or rc (the error of an earlier step, or of this one) and nothing
// left but the open disk.
int place_node(trak_device *dev, trak_add_filter_arg *arg, const disk_facts &disk, int rc) {
    const zuwrite_guard table(&trak_blkdev_rwlock);
    if (rc == 0)
        rc = trak_place_device(me, dev, &arg->minor);
    if (rc == 0)
        rc = publish_node(dev, disk);
    if (rc != 0) {
        discard_node(dev, arg->minor);
        return rc;
    }
    trak_proc_add_device(dev);
    os_disk_set_ro(dev->disk, 0);
    trak_block_make_special_file(dev);
    return 0;
}

// The half of the creation that goes on alone.
int create_node(trak_device *dev, trak_add_filter_arg *arg, const disk_facts &disk) {
    const zumutex_guard nodes(&trak_nodes_mutex);
    int rc = choose_minor(dev, arg);
    if (rc == 0)
        rc = build_node(dev, arg, disk);
    if (rc == 0)
        trak_free_minor(arg->minor);
    rc = place_node(dev, arg, disk, rc);
    if (rc != 0)
        trak_close_bdev(disk.bdev);
    return rc;
}

// The open disk becomes a node, or is closed again.
int attach_disk(trak_add_filter_arg *arg, const disk_facts &disk) {
    int rc = check_unused(arg, disk);
    if (rc == 0)
        rc = check_extent_size(arg->extent_size, disk.block_size);
    trak_device *dev = nullptr;
    if (rc == 0) {
        dev = static_cast<trak_device *>(os_kzalloc(sizeof(trak_device), OS_GFP_KERNEL));
        if (dev == nullptr) {
            trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failure", me);
            rc = -ENOMEM;
        }
    }
    if (rc != 0) {
        trak_close_bdev(disk.bdev);
        return rc;
    }
    return create_node(dev, arg, disk);
}

}  // namespace

int trak_ioctl_add_filter_node(trak_add_filter_arg *arg) {
    // The record is a caller's: its texts may lack an end. (The identifier and the name are only copied.)
    arg->hdd_name[sizeof arg->hdd_name - 1] = '\0';
    arg->bmp_dir[sizeof arg->bmp_dir - 1] = '\0';
    trak_logf(TRAK_LOG_MILESTONE,
              "%s(): Adding new node: HDD=%s, trak_minor=%d, extent_size=%d, bmap_dir=%s",
              arg->hdd_name, arg->minor, arg->extent_size, arg->bmp_dir);
    disk_facts disk{};
    int rc = find_disk(arg->hdd_name, &disk.dev);
    if (rc != 0)
        return rc;
    if (arg->uuid[0] == '\0')
        trak_generate_uuid(arg->uuid);
    rc = check_duplicate(disk.dev);
    if (rc != 0)
        return rc;
    disk.bdev = trak_open_bdev(disk.dev, OS_FMODE_WRITE);
    if (disk.bdev == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Unable to open HDD device %s (%d, %d)", arg->hdd_name,
                  os_major(disk.dev), os_minor(disk.dev));
        return -EINVAL;
    }
    disk.size = os_bdev_size(disk.bdev);
    disk.block_size = os_bdev_block_size(disk.bdev);
    return attach_disk(arg, disk);
}

int trak_block_add_disk(const char *function, trak_device *dev, std::uint64_t sectors, os_bdev *hdd,
                        os_unplug_fn unplug) {
    os_disk *disk = os_alloc_disk(1);
    os_queue *queue = disk != nullptr ? os_alloc_queue(OS_GFP_KERNEL) : nullptr;
    if (queue == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to allocate new generic disk.", function);
        if (disk != nullptr)
            os_put_disk(disk);
        return -ENOMEM;
    }
    char name[default_name_size];
    format_default_name(name, dev->minor);
    os_disk_setup(disk, static_cast<std::uint32_t>(trak_blk_major),
                  static_cast<std::uint32_t>(dev->minor), name, &trak_bdops);
    os_disk_set_capacity(disk, sectors);
    os_queue_make_request(queue, trak_make_request);
    os_queue_set_data(queue, dev);
    os_queue_set_unplug(queue, unplug);
    os_disk_set_queue(disk, queue);
    if (const int rc = os_add_disk(disk); rc != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to add new generic disk: rc=%d", function, rc);
        os_cleanup_queue(queue);
        os_put_disk(disk);
        return rc;
    }
    dev->disk = disk;
    os_queue_copy_limits(queue, os_bdev_queue(hdd));
    return 0;
}

void trak_block_make_special_file(trak_device *dev) {
    char path[sizeof "/dev/trak/" + TRAK_NAME_SIZE];
    os_snprintf(path, sizeof path, "/dev/trak/%s", dev->name);
    trak_unlink(path);
    if (trak_mknod(path, 1, trak_blk_major, dev->minor) == 0)
        trak_strncpy0(dev->dev_name, path, sizeof dev->dev_name);
}
