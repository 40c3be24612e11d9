// driver/block/destroy.cpp: taking nodes away
// SPDX-License-Identifier: GPL-2.0-only
//
// In two halves. With the node table held for writing, when no request, no open and no command is in a
// node, the node leaves the table and its filter's list: those that wait for the table find the entry
// empty afterwards. Then, with the table released, what is left of it goes: its disk, which the kernel
// takes away under the same mutex under which it opens disks, and its files, which may lie on another
// node. Until then trak_nodes_mutex keeps the minor from being given to another node.
//
// The destroy of a snap may set off that of the next one, whose delete was postponed. Each record goes
// only after those that followed from it, so the chain is walked forth (taking down) and back (leaving).
#include "driver/block/kdirtyd.h"
#include "driver/block/lifecycle.h"
#include "driver/control/proc.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/snap_node.h"
#include "driver/snap/trak_cowqueue_26.h"
#include "os/log.h"
#include "os/memory.h"

namespace {

constexpr const char *me = "trak_block_destroy_device";
constexpr int dirty_request_seconds = 10;

// 0 with *postponed set to 1 for a snap that is deleted later.
int check_destroy(trak_device *dev, int *postponed) {
    *postponed = 0;
    trak_log(TRAK_LOG_MILESTONE, "%s(): Destroying trak(%d, %d)", me, trak_blk_major, dev->minor);
    if (dev->use_cnt.load() != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): trak(%d, %d)is still being used.", me, trak_blk_major,
                 dev->minor);
        return -EBUSY;
    }
    if (trak_read_once(dev->started) == 0)
        return 0;
    if (!trak_is_filter(dev) && trak_read_once(dev->snap.stop_pending) != 0) {
        trak_write_once(dev->snap.del_pending, 1u);
        trak_log(TRAK_LOG_MILESTONE,
                 "%s(): STOP is pending for trak(%d, %d). Postponing delete as well.", me,
                 trak_blk_major, dev->minor);
        *postponed = 1;
        return 0;
    }
    trak_log(TRAK_LOG_ERROR, "%s(): Can't destroy started trak(%d, %d). Stop it first!", me,
             trak_blk_major, dev->minor);
    return -EBUSY;
}

// The path is made from the name: a long name's path does not fit into dev_name.
void remove_special_file(const trak_device *dev) {
    if (dev->dev_name[0] == '\0')
        return;
    char path[sizeof "/dev/trak/" + TRAK_NAME_SIZE];
    os_snprintf(path, sizeof path, "/dev/trak/%s", dev->name);
    trak_unlink(path);
}

// The end of the first half: nobody finds the node any more (an orphan has no table entry; another node
// may).
void leave(trak_device *dev, trak_list *leaving) TRAK_REQUIRES(trak_blkdev_rwlock) {
    const std::int32_t minor = dev->minor;
    if (trak_find_device(static_cast<std::uint32_t>(minor)) == dev)
        trak_blkdev_arr[minor] = nullptr;
    else
        trak_list_del(&dev->orphan_link);
    trak_list_add_tail(&dev->orphan_link, leaving);
    trak_log(TRAK_LOG_DETAIL, "%s(): trak(%d, %d) has been destroyed successfully", me,
             trak_blk_major, minor);
}

// The second half of one node.
void bury(trak_device *dev, int unlink_files) TRAK_REQUIRES(trak_nodes_mutex)
    TRAK_EXCLUDES(trak_blkdev_rwlock) {
    if (trak_is_filter(dev)) {
        trak_filter *filter = &dev->filter;
        trak_yield_to_dirty_requests(filter, dirty_request_seconds);
        remove_special_file(dev);
        os_vfree(filter->incr_bmp);
        os_vfree(filter->diff_bmp);
        filter->incr_bmp = filter->diff_bmp = nullptr;
        trak_close_bdev(filter->hdd_bdev);
        trak_block_remove_disk(dev->disk);
        trak_free_after_dirty_requests(dev);
        return;
    }
    if (unlink_files != 0) {
        trak_unlink(dev->snap.cow_data_fname);
        trak_unlink(dev->snap.cow_bmp_fname);
    }
    remove_special_file(dev);
    trak_block_remove_disk(dev->disk);
    os_kfree(dev);
}

// Everything of a snap's first half but its leaving. *done stays 0 where the delete was postponed.
int take_down_snap(trak_device *dev, int *done) TRAK_REQUIRES(trak_blkdev_rwlock) {
    int postponed;
    *done = 0;
    const int rc = check_destroy(dev, &postponed);
    if (rc != 0 || postponed != 0)
        return rc;
    trak_snap_detach(dev);
    if (dev->disk != nullptr)
        trak_proc_del_device(dev);
    *done = 1;
    return 0;
}

// The filter's oldest snap when its delete was postponed, else null.
trak_device *next_to_delete(trak_filter *filter) {
    if (trak_list_empty(&filter->snaps))
        return nullptr;
    trak_device *oldest = trak_device_of_link(filter->snaps.next);
    return trak_read_once(oldest->snap.del_pending) != 0 ? oldest : nullptr;
}

int destroy_snap(trak_device *first, trak_list *leaving) TRAK_REQUIRES(trak_blkdev_rwlock) {
    trak_filter *filter = &first->snap.filter->filter;
    int done;
    const int rc = take_down_snap(first, &done);
    if (rc != 0 || done == 0)
        return rc;
    trak_device *last = first;
    last->snap.before = nullptr;
    while (trak_device *next = next_to_delete(filter)) {
        if (take_down_snap(next, &done) != 0 || done == 0)
            break;
        next->snap.before = last;
        last = next;
    }
    for (trak_device *dev = last; dev != nullptr; dev = dev->snap.before)
        leave(dev, leaving);
    return 0;
}

int destroy_snaps_of(trak_filter *filter, trak_list *leaving) TRAK_REQUIRES(trak_blkdev_rwlock) {
    while (!trak_list_empty(&filter->snaps)) {
        const trak_list *oldest = filter->snaps.next;
        trak_device *snap = trak_device_of_link(filter->snaps.next);
        trak_log(TRAK_LOG_DETAIL, "%s(): Deleting associated snap trak(%d, %d)", me, trak_blk_major,
                 snap->minor);
        const int rc = destroy_snap(snap, leaving);
        if (rc != 0)
            return rc;
        if (filter->snaps.next == oldest)  // only marked: it runs on, and needs its filter
            return -EBUSY;
    }
    return 0;
}

int destroy_filter(trak_device *dev, trak_list *leaving) TRAK_REQUIRES(trak_blkdev_rwlock) {
    trak_filter *filter = &dev->filter;
    int postponed;
    int rc = check_destroy(dev, &postponed);
    if (rc != 0)
        return rc;
    rc = destroy_snaps_of(filter, leaving);
    if (rc != 0)
        return rc;
    trak_cowqueue_destroy(&filter->cowqueue);
    trak_aio_destroy(&filter->aio, 0);
    if (dev->disk != nullptr)
        trak_proc_del_device(dev);
    leave(dev, leaving);
    return 0;
}

}  // namespace

int trak_block_destroy_device(trak_device *dev, trak_list *leaving) {
    if (dev == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Internal error: dev==NULL");
        return -EINVAL;
    }
    return trak_is_filter(dev) ? destroy_filter(dev, leaving) : destroy_snap(dev, leaving);
}

void trak_block_bury_devices(trak_list *leaving, int unlink_files) {
    while (!trak_list_empty(leaving)) {
        trak_device *dev = trak_container_of(leaving->next, trak_device, orphan_link);
        trak_list_del(&dev->orphan_link);
        bury(dev, unlink_files);
    }
}

void trak_block_remove_disk(os_disk *disk) {
    if (disk == nullptr)
        return;
    os_del_gendisk(disk);
    if (os_queue *queue = os_disk_queue(disk))
        os_cleanup_queue(queue);
    os_put_disk(disk);
}
