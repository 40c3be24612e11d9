// driver/snap/snap_create.cpp: creation of a snap node
// SPDX-License-Identifier: GPL-2.0-only
//
// Kept as it is: a refusal because the chunk size is below a page or differs from that of the filter's
// other snaps, and a failure to get memory for the record, return with the node table still locked for
// writing. Callers compare the chunk sizes before they ask.

#include "driver/block/filter.h"
#include "driver/block/lifecycle.h"
#include "driver/block/lock_ranks.h"
#include "driver/block/locks.h"
#include "driver/control/proc.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/snap_node.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "os/log.h"

namespace {

constexpr char kName[] = "trak_ioctl_add_snap_node";
constexpr int kMostSnaps = 255;       // that a filter may have before one more is made
constexpr int kMostChunksShift = 30;  // log2 of the most chunks of a snap
constexpr std::uint32_t kMostChunkSize = 1u << 31;

enum class Lock { kReleased, kKept };

// A refusal, and whether it lets go of the node table.
struct Refusal {
    int rc;
    Lock lock;
};

constexpr Refusal kAccepted = {0, Lock::kReleased};

int check_cow_file(const char *path, std::uint32_t filter_minor) {
    const os_dev_t dev = trak_get_file_devt(path);
    if (os_major(dev) == 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to get ID of the device with %s", kName, path);
        return -EINVAL;
    }
    if (dev == ((static_cast<std::uint32_t>(trak_blk_major) << 20) | filter_minor)) {
        trak_log(TRAK_LOG_ERROR, "%s(): File %s can't be on the partition being snapped!", kName,
                 path);
        return -EINVAL;
    }
    return 0;
}

trak_device *find_filter(std::uint32_t minor) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    trak_device *filter = trak_find_device(minor);
    if (filter != nullptr && trak_is_filter(filter))
        return filter;
    trak_log(TRAK_LOG_ERROR, "%s(): Invalid filter node minor number %d passed.", kName,
             static_cast<int>(minor));
    return nullptr;
}

int count_snaps(const trak_filter *filter) {
    int count = 0;
    for (const trak_list *at = filter->snaps.next; at != &filter->snaps; at = at->next)
        ++count;
    return count;
}

Refusal check_chunk_size(trak_filter *filter, std::uint32_t size) {
    constexpr std::uint32_t page = OS_PAGE_SIZE;
    if (!trak_is_power_of_two(size)) {
        // 12288 is a multiple of a page and no power of two; 1 is a power of two and no multiple.
        trak_log(TRAK_LOG_ERROR, "%s(): Chunk size must be a power of 2", kName);
        return {-EINVAL, Lock::kReleased};
    }
    if (size % page != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Chunk size must be a multiple of page size (%dB)", kName,
                 OS_PAGE_SIZE);
        return {-EINVAL, Lock::kReleased};
    }
    if (size < page) {
        trak_log(TRAK_LOG_ERROR, "%s(): Chunk size can't be smaller than page size (%dB)", kName,
                 OS_PAGE_SIZE);
        return {-EINVAL, Lock::kKept};
    }
    for (trak_list *at = filter->snaps.next; at != &filter->snaps; at = at->next) {
        const std::uint32_t other = trak_device_of_link(at)->snap.chunk_size;
        if (other == size)
            continue;
        trak_log(TRAK_LOG_ERROR,
                 "%s(): trak(%d, %d) already has one snap with chunk size %d. All snaps must have "
                 "identical chunk sizes.",
                 kName, trak_blk_major, trak_device_of(filter)->minor, static_cast<int>(other));
        return {-EINVAL, Lock::kKept};
    }
    return kAccepted;
}

// So that a chunk's number fits the bitmap's signed 32 bits.
void raise_chunk_size(const trak_filter *filter, std::uint32_t *size) {
    const std::uint32_t asked = *size;
    while (filter->dev_size > std::uint64_t{*size} << kMostChunksShift && *size < kMostChunkSize)
        *size *= 2;
    if (*size == asked)
        return;
    trak_log(TRAK_LOG_ERROR, "%s(): Chunk size %d is too small for such a large volume %lld", kName,
             static_cast<int>(asked), static_cast<long long>(filter->dev_size));
    trak_log(TRAK_LOG_ERROR, "%s(): We have automatically increased it to %d", kName,
             static_cast<int>(*size));
}

void fill_record(trak_device *dev, trak_device *filter, const trak_add_snap_arg *arg) {
    trak_snap *snap = &dev->snap;
    dev->dev_type = TRAK_DEV_SNAP;
    zumutex_init(&dev->dev_mutex, &trak_rank_snap_mutex);
    trak_strncpy0(dev->uuid, arg->uuid, sizeof(dev->uuid));
    trak_strncpy0(dev->name, arg->name, sizeof(dev->name));
    snap->part_minor = static_cast<std::uint32_t>(dev->minor);
    snap->chunk_size = arg->chunk_size;
    snap->chunk_shift = trak_size_shift(arg->chunk_size);
    snap->chunk_cnt = ((filter->filter.dev_size - 1) >> snap->chunk_shift) + 1;
    snap->cow_bmp_size = static_cast<std::int32_t>(trak_bitmap_bytes(snap->chunk_cnt));
    snap->cow_data_size = static_cast<std::int64_t>(snap->chunk_cnt << snap->chunk_shift);
    trak_strncpy0(snap->cow_bmp_fname, arg->cow_bmp_fname, sizeof(snap->cow_bmp_fname));
    trak_strncpy0(snap->cow_data_fname, arg->cow_data_fname, sizeof(snap->cow_data_fname));
    snap->filter = filter;
    const zuwrite_guard guard(&filter->filter.snap_rwlock);
    trak_list_add_tail(&snap->snap_link, &filter->filter.snaps);
}

// Takes back what fill_record and the table got.
void withdraw(trak_device *dev) TRAK_REQUIRES(trak_blkdev_rwlock) {
    trak_snap_detach(dev);
    trak_blkdev_arr[dev->minor] = nullptr;
}

// Everything from the minor on: 0 or a negative errno, the record then not in use.
int publish(trak_device *dev, trak_device *filter, trak_add_snap_arg *arg)
    TRAK_REQUIRES(trak_blkdev_rwlock) {
    int rc = trak_place_device(kName, dev, &arg->snap_minor);
    if (rc != 0)
        return rc;
    if (arg->name[0] == '\0')
        os_snprintf(arg->name, sizeof(arg->name), "trak%d", dev->minor);
    trak_log(TRAK_LOG_MILESTONE, "%s(): Attaching snap trak(%d, %d) to filter trak(%d, %d)", kName,
             trak_blk_major, dev->minor, trak_blk_major, filter->minor);
    fill_record(dev, filter, arg);
    rc = trak_block_add_disk(kName, dev, filter->filter.dev_size >> OS_SECTOR_SHIFT,
                             filter->filter.hdd_bdev, trak_unplug_snap);
    if (rc != 0) {
        withdraw(dev);
        return rc;
    }
    trak_proc_add_device(dev);
    os_disk_set_ro(dev->disk, 1);
    trak_block_make_special_file(dev);
    return 0;
}

// The checks under the lock and the creation.
Refusal create(trak_add_snap_arg *arg) TRAK_REQUIRES(trak_blkdev_rwlock) {
    trak_device *filter = find_filter(arg->filter_minor);
    if (filter == nullptr)
        return {-EINVAL, Lock::kReleased};
    if (count_snaps(&filter->filter) > kMostSnaps) {
        trak_log(TRAK_LOG_ERROR, "%s(): Too many snaps already associated with trak(%d, %d).",
                 kName, trak_blk_major, filter->minor);
        return {-ENOSPC, Lock::kReleased};
    }
    const Refusal refusal = check_chunk_size(&filter->filter, arg->chunk_size);
    if (refusal.rc != 0)
        return refusal;
    raise_chunk_size(&filter->filter, &arg->chunk_size);
    auto *dev = static_cast<trak_device *>(os_kzalloc(sizeof(trak_device), OS_GFP_KERNEL));
    if (dev == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failure", kName);
        return {-ENOMEM, Lock::kKept};
    }
    const int rc = publish(dev, filter, arg);
    if (rc != 0)
        os_kfree(dev);
    return {rc, Lock::kReleased};
}

}  // namespace

TRAK_NO_THREAD_SAFETY_ANALYSIS int trak_ioctl_add_snap_node(trak_add_snap_arg *arg) {
    arg->cow_bmp_fname[TRAK_PATH_SIZE - 1] = '\0';
    arg->cow_data_fname[TRAK_PATH_SIZE - 1] = '\0';
    arg->name[TRAK_SNAP_NAME_SIZE - 1] = '\0';
    trak_logf(TRAK_LOG_MILESTONE,
              "%s(): Creating new snap node: snap_minor=%d, trak_minor=%d, chunk_size=%d, "
              "cow_bmp_fname=%s, cow_data_fname=%s",
              arg->snap_minor, static_cast<int>(arg->filter_minor),
              static_cast<int>(arg->chunk_size), arg->cow_bmp_fname, arg->cow_data_fname);
    int rc = check_cow_file(arg->cow_bmp_fname, arg->filter_minor);
    if (rc == 0)
        rc = check_cow_file(arg->cow_data_fname, arg->filter_minor);
    if (rc != 0)
        return rc;
    if (arg->uuid[0] == '\0')
        trak_generate_uuid(arg->uuid);
    arg->uuid[TRAK_UUID_SIZE - 1] = '\0';

    const zumutex_guard nodes(&trak_nodes_mutex);
    trak_free_minor(arg->snap_minor);
    zuwrite_lock(&trak_blkdev_rwlock);
    const Refusal result = create(arg);
    if (result.lock == Lock::kReleased)
        zuwrite_unlock(&trak_blkdev_rwlock);
    return result.rc;
}
