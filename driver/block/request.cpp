// driver/block/request.cpp: the path of every request to a node
// SPDX-License-Identifier: GPL-2.0-only
//
// The life of a write to a filter, in the submitter's task:
//   1  the node table and the filter's snap_rwlock are taken for reading, write_cnt counts the request;
//   2  each extent that it touches is marked in both change bitmaps; the mark that turns a clean bitmap
//      dirty queues a flag write;
//   3  without snaps the bio itself goes on to the disk; else the snapshot routing takes it.
// Marks come before the disk sees the data, so that a map taken at any moment has every extent whose
// contents may have changed by then.
#include "driver/block/request.h"

#include "driver/block/kdirtyd.h"
#include "driver/block/table.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/routing.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "os/task.h"

namespace {

// What the COW thread allocates for its own requests must not wait for I/O that it would have to do.
os_gfp request_gfp() {
    char name[OS_TASK_COMM_LEN];
    os_current_comm(name);
    return trak_str_contains(name, "kcowd") ? OS_GFP_ATOMIC : OS_GFP_NOIO;
}

// Marks one extent of a bitmap under bmp_spin; true when that made a clean bitmap dirty.
bool mark(std::uint8_t *bits, std::uint32_t *dirty, std::uint64_t extent) {
    if (bits == nullptr || trak_test_and_set_bit(bits, extent) || *dirty != 0)
        return false;
    trak_write_once(*dirty, 1u);
    return true;
}

// A lost flag write (no memory) loses no mark: the request goes on.
void mark_extent(trak_filter *filter, std::uint64_t extent) {
    bool incr;
    bool diff;
    {
        const trak_spin_guard spin(&filter->bmp_spin);
        incr = mark(filter->incr_bmp, &filter->incr_bmp_dirty, extent);
        diff = mark(filter->diff_bmp, &filter->diff_bmp_dirty, extent);
    }
    if (incr)
        trak_sched_write_dirty_flag(filter, TRAK_BMP_INCR);
    if (diff)
        trak_sched_write_dirty_flag(filter, TRAK_BMP_DIFF);
}

// Extent numbers are 64 bits wide here. A filter has at most 2^31 extents, so those that exist are also
// in order as signed 32-bit numbers; a request beyond the last one marks nothing there.
void mark_extents(trak_filter *filter, std::uint64_t sector, std::uint64_t sectors) {
    const int shift = filter->extent_shift - OS_SECTOR_SHIFT;
    const std::uint64_t first = sector >> shift;
    std::uint64_t last = (sector + sectors - 1) >> shift;
    if (last >= filter->extent_cnt)
        last = filter->extent_cnt - 1;
    for (std::uint64_t extent = first; extent <= last; ++extent)
        mark_extent(filter, extent);
}

// Discards and write-zeroes change their sectors as writes do.
bool changes_data(const os_bio *bio) {
    return (os_bio_rw(bio) & (OS_BIO_WRITE | OS_BIO_DISCARD | OS_BIO_ZEROES)) != 0;
}

int route_filter_request(trak_device *dev, os_bio *bio) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    trak_filter *filter = &dev->filter;
    const std::uint64_t sectors = os_bio_size(bio) >> OS_SECTOR_SHIFT;
    const zuread_guard guard(&filter->snap_rwlock);
    filter->write_cnt.add(1);
    if (changes_data(bio) && sectors != 0)
        mark_extents(filter, os_bio_sector(bio), sectors);
    if (!trak_list_empty(&filter->snaps) && sectors != 0)
        return trak_route_filter_request(dev, bio, request_gfp());
    os_bio_set_bdev(bio, filter->hdd_bdev);
    os_generic_make_request(bio);
    return 0;
}

// `owner` is the record that the queue was made for. A creation that was refused may have emptied the
// node's table entry, and another node may have taken the minor: that one's disk is not the bio's.
int route_request(os_bio *bio, std::uint32_t minor, const void *owner)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    constexpr const char *me = "trak_make_request";
    trak_device *dev = trak_find_device(minor);
    if (dev == nullptr || dev != owner) {
        trak_log(TRAK_LOG_ERROR, "%s(): Nothing is known about TRAK device with minor=%d", me,
                 minor);
        return -EINVAL;
    }
    if (trak_read_once(dev->started) == 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): I/O request for trak(%d, %d), which is in STOPPED state.",
                 me, trak_blk_major, minor);
        return -EIO;
    }
    if (!trak_is_filter(dev))
        return trak_route_snap_request(dev, bio, request_gfp());
    return route_filter_request(dev, bio);
}

}  // namespace

int trak_make_request(os_queue *queue, os_bio *bio) {
    const std::uint32_t minor = os_minor(os_bdev_dev(os_bio_bdev(bio)));
    const void *owner = os_queue_data(queue);
    trak_logf(TRAK_LOG_REQUEST, "%s(): minor=%d, sector=%lld, sectors=%d, rw=%d", minor,
              static_cast<long long>(os_bio_sector(bio)), os_bio_size(bio) >> OS_SECTOR_SHIFT,
              os_bio_rw(bio) & OS_BIO_WRITE);
    int rc;
    {
        const zuread_guard table(&trak_blkdev_rwlock);
        rc = route_request(bio, minor, owner);
    }
    if (rc < 0) {
        os_bio_endio(bio, rc);
        return 0;
    }
    return rc;
}
