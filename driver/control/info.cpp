// driver/control/info.cpp: the information commands
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/control/info.h"

#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"

namespace {

// The minors of a type below trak_max_blk_minor: the scan has always stopped one short of it, and
// callers know the interface so.
void list_minors(trak_device_list_arg *arg) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    if (trak_blkdev_arr == nullptr)
        return;
    const auto end = static_cast<std::uint32_t>(trak_max_blk_minor);
    for (std::uint32_t m = 0; m < end; ++m) {
        const trak_device *dev = trak_find_device(m);
        if (dev != nullptr && dev->dev_type == arg->dev_type && arg->count < TRAK_LIST_MAX)
            arg->minors[arg->count++] = m;
    }
}

void describe_bitmap(const std::uint8_t *bits, std::uint32_t extent_cnt, std::uint32_t *clear,
                     std::uint32_t *full) {
    if (bits == nullptr)
        return;  // the caller's two fields stay as they came
    *clear = trak_bits_all_clear(bits, extent_cnt) ? 1 : 0;
    *full = trak_bits_all_set(bits, extent_cnt) ? 1 : 0;
}

void describe_filter(trak_device *dev, trak_info_arg *arg)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    trak_filter *filter = &dev->filter;
    trak_strncpy0(arg->hdd_name, filter->hdd_name, sizeof arg->hdd_name);
    arg->dev_size = filter->dev_size;
    arg->extent_size = filter->extent_size;
    arg->extent_cnt = filter->extent_cnt;

    arg->snaps = 0;
    const zuread_guard snaps(&filter->snap_rwlock);
    for (trak_list *link = filter->snaps.next; link != &filter->snaps && arg->snaps < TRAK_LIST_MAX;
         link = link->next) {
        const trak_device *snap = trak_device_of_link(link);
        arg->snap_minors[arg->snaps++] = static_cast<std::uint32_t>(snap->minor);
    }

    arg->incr_bmp_size = static_cast<std::uint32_t>(filter->incr_bmp_size);
    arg->diff_bmp_size = static_cast<std::uint32_t>(filter->diff_bmp_size);
    trak_strncpy0(arg->incr_bmp_fname, filter->incr_bmp_fname, sizeof arg->incr_bmp_fname);
    trak_strncpy0(arg->diff_bmp_fname, filter->diff_bmp_fname, sizeof arg->diff_bmp_fname);
    describe_bitmap(filter->incr_bmp, filter->extent_cnt, &arg->incr_bmp_clear,
                    &arg->incr_bmp_full);
    describe_bitmap(filter->diff_bmp, filter->extent_cnt, &arg->diff_bmp_clear,
                    &arg->diff_bmp_full);
}

void describe_snap(const trak_snap *snap, trak_info_arg *arg) {
    arg->snap_valid = trak_read_once(snap->snap_valid);
    arg->stop_pending = trak_read_once(snap->stop_pending);
    arg->del_pending = trak_read_once(snap->del_pending);
    arg->dev_size = snap->filter->filter.dev_size;
    arg->chunk_cnt = static_cast<std::uint32_t>(snap->chunk_cnt);
    arg->chunk_size = snap->chunk_size;
    arg->cow_bmp_size = static_cast<std::uint32_t>(snap->cow_bmp_size);
    arg->cow_data_size = static_cast<std::uint64_t>(snap->cow_data_size);
    trak_strncpy0(arg->cow_bmp_fname, snap->cow_bmp_fname, sizeof arg->cow_bmp_fname);
    trak_strncpy0(arg->cow_data_fname, snap->cow_data_fname, sizeof arg->cow_data_fname);
}

}  // namespace

int trak_ioctl_get_device_list(trak_device_list_arg *arg) {
    if (arg->dev_type != TRAK_DEV_FILTER && arg->dev_type != TRAK_DEV_SNAP) {
        trak_log(TRAK_LOG_ERROR, "%s(): Invalid device type 0x%02x passed as input.",
                 "trak_get_device_list_node", arg->dev_type);
        return -EINVAL;
    }
    trak_logf(TRAK_LOG_COMMAND, "%s(): Returning the list of %s devices.",
              arg->dev_type == TRAK_DEV_FILTER ? "FILTER" : "SNAP");
    const zuread_guard guard(&trak_blkdev_rwlock);
    arg->count = 0;
    list_minors(arg);
    return 0;
}

int trak_ioctl_get_info(trak_device *dev, trak_info_arg *arg) {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Getting info on trak(%d, %d)", trak_blk_major, dev->minor);
    arg->dev_type = dev->dev_type;
    arg->started = trak_read_once(dev->started);
    arg->use_cnt = static_cast<std::uint32_t>(dev->use_cnt.load());
    trak_strncpy0(arg->uuid, dev->uuid, sizeof arg->uuid);
    trak_strncpy0(arg->name, dev->name, sizeof arg->name);

    if (trak_is_filter(dev)) {
        describe_filter(dev, arg);
    } else if (dev->dev_type == TRAK_DEV_SNAP) {
        const trak_device *filter = dev->snap.filter;
        if (filter == nullptr || !trak_is_filter(filter)) {
            trak_logf(TRAK_LOG_ERROR,
                      "%s(): Snap device trak(%d, %d) is not attached to a filter device.",
                      trak_blk_major, static_cast<std::int32_t>(dev->snap.part_minor));
            return -EINVAL;
        }
        describe_snap(&dev->snap, arg);
    }
    return 0;
}
