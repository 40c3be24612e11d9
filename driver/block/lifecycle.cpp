// driver/block/lifecycle.cpp: load and unload of the block side, start and stop of nodes
// SPDX-License-Identifier: GPL-2.0-only
//
// A node is created stopped, started, stopped (refused while it is open) and destroyed (refused while it
// is open or started). A snap that older started snaps depend on is not stopped when asked but marked
// (stop_pending); the stop of the last older one then stops it. Such chains are loops here, not
// recursion: they may be as long as a filter has snaps, and kernel stacks are small.
#include "driver/block/lifecycle.h"

#include <os_embedded.h>

#include "driver/block/bitmap_file.h"
#include "driver/block/kdirtyd.h"
#include "driver/block/orphans.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/snap_node.h"
#include "driver/snap/trak_cowthread_26.h"

namespace {

constexpr const char *driver_name = "trak";
constexpr int unknown_minor_of_del = 22;  // EINVAL without its sign, as callers of delete know it

OS_MODULE_STATE constinit std::uint32_t registered = 0;

std::uint32_t blk_major() {
    return static_cast<std::uint32_t>(trak_blk_major);
}

void log_unknown(const char *function, std::uint32_t minor) {
    trak_log(TRAK_LOG_ERROR, "%s(): Nothing is known about trak(%d, %d)", function, trak_blk_major,
             minor);
}

// ---- start ----------------------------------------------------------------------------------

int start_locked(trak_device *dev) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    constexpr const char *me = "trak_block_start_device";
    if (trak_read_once(dev->started) != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): trak(%d, %d) has already been started", me, trak_blk_major,
                 dev->minor);
        return -EALREADY;
    }
    if (trak_is_filter(dev)) {
        trak_write_once(dev->started, 1u);
    } else if (const int rc = trak_snap_start(dev); rc != 0) {
        return rc;
    }
    trak_log(TRAK_LOG_DETAIL, "%s(): trak(%d, %d) has been started successfully", me,
             trak_blk_major, dev->minor);
    return 0;
}

int start_filter(trak_device *dev) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    const zumutex_guard mutex(&dev->dev_mutex);
    return start_locked(dev);
}

// The start of a snap may start its filter, whose mutex is taken first for that.
int start_snap(trak_device *dev) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    int rc;
    {
        const zumutex_guard parent(&dev->snap.filter->dev_mutex);
        const zumutex_guard mutex(&dev->dev_mutex);
        rc = start_locked(dev);
    }
    if (rc == 0)
        trak_snap_read_data_blocks(dev);
    return rc;
}

// ---- stop -----------------------------------------------------------------------------------

enum class stop_result { nothing_to_do, postponed, stopped };

void log_stopping(const trak_device *dev) {
    trak_log(TRAK_LOG_COMMAND, "%s(): Stopping trak(%d, %d)", "trak_block_stop_device",
             trak_blk_major, dev->minor);
}

void log_stopped(const trak_device *dev) {
    trak_log(TRAK_LOG_DETAIL, "%s(): trak(%d, %d) has been stopped successfully",
             "trak_block_stop_device", trak_blk_major, dev->minor);
}

// With the node's dev_mutex held: 0 or -EBUSY.
int check_not_in_use(const trak_device *dev) {
    if (dev->use_cnt.load() == 0)
        return 0;
    trak_log(TRAK_LOG_ERROR, "%s(): trak(%d, %d) is still being used.", "trak_block_stop_device",
             trak_blk_major, dev->minor);
    return -EBUSY;
}

// One snap, but for the message of success. The filter's dev_mutex is held.
int stop_one_snap(trak_device *dev, stop_result *result) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    *result = stop_result::nothing_to_do;
    log_stopping(dev);
    const zumutex_guard mutex(&dev->dev_mutex);
    if (trak_read_once(dev->started) == 0)
        return 0;
    int rc = check_not_in_use(dev);
    if (rc != 0)
        return rc;
    int postponed = 0;
    rc = trak_snap_stop(dev, &postponed);
    if (rc != 0)
        return rc;
    if (postponed != 0) {
        trak_log(TRAK_LOG_MILESTONE,
                 "%s(): Postponing stop of trak(%d, %d), since there are other snaps depending on "
                 "this one.",
                 "trak_block_stop_device", trak_blk_major, dev->minor);
        *result = stop_result::postponed;
        return 0;
    }
    *result = stop_result::stopped;
    return 0;
}

// One snap and then those whose stop waited for it. Each counts as stopped once those that followed from
// its stop are; one that can't be stopped (it is open) is no failure of the first and ends the chain. The
// filter's dev_mutex is held.
int stop_snap_chain(trak_device *first) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    stop_result result;
    const int rc = stop_one_snap(first, &result);
    if (rc != 0 || result != stop_result::stopped)
        return rc;
    trak_device *last = first;
    last->snap.before = nullptr;
    while (trak_device *next = trak_snap_next_to_stop(last)) {
        if (stop_one_snap(next, &result) != 0 || result != stop_result::stopped)
            break;
        next->snap.before = last;
        last = next;
    }
    for (const trak_device *dev = last; dev != nullptr; dev = dev->snap.before)
        log_stopped(dev);
    return 0;
}

int stop_snap(trak_device *dev) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    const zumutex_guard parent(&dev->snap.filter->dev_mutex);
    return stop_snap_chain(dev);
}

// A chain stops several snaps at once, but takes none out of the list.
int stop_snaps_of(trak_filter *filter) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    for (trak_list *link = filter->snaps.next; link != &filter->snaps; link = link->next) {
        trak_device *snap = trak_device_of_link(link);
        if (trak_read_once(snap->started) == 0)
            continue;
        const int rc = stop_snap_chain(snap);
        if (rc != 0)
            return rc;
    }
    return 0;
}

int stop_filter(trak_device *dev) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    log_stopping(dev);
    const zumutex_guard mutex(&dev->dev_mutex);
    if (trak_read_once(dev->started) == 0)
        return 0;
    int rc = check_not_in_use(dev);
    if (rc != 0)
        return rc;
    rc = stop_snaps_of(&dev->filter);
    if (rc != 0)
        return rc;
    trak_cowthread_shutdown(&dev->filter.cowthread);
    trak_block_save_dirty_bmps(&dev->filter);
    trak_write_once(dev->started, 0u);
    log_stopped(dev);
    return 0;
}

// ---- unload ---------------------------------------------------------------------------------

int stop_all() {
    const zuread_guard table(&trak_blkdev_rwlock);
    for (std::uint32_t minor = 0; trak_minor_in_range(minor); ++minor) {
        trak_device *dev = trak_find_device(minor);
        if (dev == nullptr || trak_read_once(dev->started) == 0)
            continue;
        const int rc = trak_block_stop_device(dev);
        if (rc != 0)
            return rc;
    }
    for (trak_device *dev = trak_next_orphan(nullptr); dev != nullptr;
         dev = trak_next_orphan(dev)) {
        if (trak_read_once(dev->started) == 0)
            continue;
        const int rc = trak_block_stop_device(dev);
        if (rc != 0)
            return rc;
    }
    return 0;
}

// Takes every node out of the table: 0 or the first error, which leaves the rest in place.
int empty_table(trak_list *leaving) TRAK_REQUIRES(trak_nodes_mutex) {
    const zuwrite_guard table(&trak_blkdev_rwlock);
    for (std::uint32_t minor = 0; trak_minor_in_range(minor); ++minor) {
        trak_device *dev = trak_find_device(minor);
        if (dev == nullptr)
            continue;
        const int rc = trak_block_destroy_device(dev, leaving);
        if (rc != 0)
            return rc;
    }
    while (trak_device *dev = trak_next_orphan(nullptr)) {
        const int rc = trak_block_destroy_device(dev, leaving);
        if (rc != 0)
            return rc;
    }
    trak_table_destroy();
    return 0;
}

int destroy_all() {
    const zumutex_guard nodes(&trak_nodes_mutex);
    trak_list leaving;
    trak_list_init(&leaving);
    const int rc = empty_table(&leaving);
    trak_block_bury_devices(&leaving, 0);
    return rc;
}

// Another command may have come in between since the node was stopped: its entry is read again.
int destroy_minor(std::uint32_t minor) {
    const zumutex_guard nodes(&trak_nodes_mutex);
    trak_list leaving;
    trak_list_init(&leaving);
    int rc = unknown_minor_of_del;
    {
        const zuwrite_guard table(&trak_blkdev_rwlock);
        if (trak_device *dev = trak_find_device(minor))
            rc = trak_block_destroy_device(dev, &leaving);
        else
            log_unknown("trak_ioctl_del_node", minor);
    }
    trak_block_bury_devices(&leaving, 1);
    return rc;
}

bool table_exists() {
    const zuread_guard table(&trak_blkdev_rwlock);
    return trak_blkdev_arr != nullptr;
}

void undo_init() {
    {
        const zuwrite_guard table(&trak_blkdev_rwlock);
        trak_table_destroy();
    }
    os_unregister_blkdev(blk_major(), driver_name);
    registered = 0;
}

}  // namespace

int trak_block_init() {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Initializing block device");
    int rc = os_register_blkdev(blk_major(), driver_name);
    if (rc < 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to register block device: rc=%d.", rc);
        return rc;
    }
    if (trak_blk_major == 0)
        trak_blk_major = rc;
    trak_logf(TRAK_LOG_COMMAND, "%s(): trak_blk_major=%d", trak_blk_major);
    registered = 1;
    rc = trak_table_create();
    if (rc != 0)
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
    else
        rc = trak_start_kdirtyd();
    // The load that fails calls no trak_block_destroy, and the module goes away.
    if (rc != 0)
        undo_init();
    return rc;
}

int trak_block_destroy() {
    if (table_exists()) {
        trak_logf(TRAK_LOG_COMMAND, "%s(): Stopping all minor nodes");
        int rc = stop_all();
        if (rc != 0)
            return rc;
        trak_logf(TRAK_LOG_COMMAND, "%s(): Destroying all minor nodes");
        rc = destroy_all();
        if (rc != 0)
            return rc;
    }
    if (registered != 0) {
        trak_logf(TRAK_LOG_COMMAND, "%s(): Unregistering block device driver");
        os_unregister_blkdev(blk_major(), driver_name);
        registered = 0;
    }
    trak_stop_kdirtyd();
    return 0;
}

int trak_block_start_device(trak_device *dev) {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Starting trak(%d, %d)", trak_blk_major, dev->minor);
    return trak_is_filter(dev) ? start_filter(dev) : start_snap(dev);
}

int trak_block_stop_device(trak_device *dev) {
    return trak_is_filter(dev) ? stop_filter(dev) : stop_snap(dev);
}

int trak_ioctl_start_node(trak_minor_arg *arg) {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Starting trak(%d, %d)", trak_blk_major, arg->minor);
    const zuread_guard table(&trak_blkdev_rwlock);
    trak_device *dev = trak_find_device(arg->minor);
    if (dev == nullptr) {
        log_unknown(__func__, arg->minor);
        return -EINVAL;
    }
    return trak_block_start_device(dev);
}

int trak_ioctl_stop_node(trak_minor_arg *arg) {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Stopping trak(%d, %d)", trak_blk_major, arg->minor);
    const zuread_guard table(&trak_blkdev_rwlock);
    trak_device *dev = trak_find_device(arg->minor);
    if (dev == nullptr) {
        log_unknown(__func__, arg->minor);
        return -EINVAL;
    }
    return trak_block_stop_device(dev);
}

int trak_ioctl_del_node(trak_minor_arg *arg) {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Removing trak(%d, %d)", trak_blk_major, arg->minor);
    {
        const zuread_guard table(&trak_blkdev_rwlock);
        trak_device *dev = trak_find_device(arg->minor);
        if (dev == nullptr) {
            log_unknown(__func__, arg->minor);
            return unknown_minor_of_del;
        }
        const int rc = trak_block_stop_device(dev);
        if (rc != 0)
            return rc;
    }
    return destroy_minor(arg->minor);
}
