// driver/snap/snap_start.cpp: the start of a snapshot
// SPDX-License-Identifier: GPL-2.0-only
//
// The image is the disk at one instant:
//   1. the COW files are made, sized and synced while everything runs;
//   2. each request that came to the filter before this is waited for, so that what was marked as written
//      before the start is in the image;
//   3. the file system on the filter is frozen, so that it is consistent and has no write under way;
//   4. snap_rwlock is taken for writing at a moment when no request is in the filter's path and none
//      came since the last look; it is tried, not waited for, so that a deadline holds;
//   5. the snap becomes part of every later decision, at the tail of the filter's list if one that
//      stands behind it runs already: the list is in the order of starts.
// Lock and freeze go in every exit.
//
// Without a file system there may still be writes under way that came after 2. What was sent to the disk
// before the instant is in the image: whoever reads or copies what it touches waits for its clone first.
// What waits in the COW queue reaches the disk after it, and is preserved like any later write.
#include "driver/block/lifecycle.h"
#include "driver/block/locks.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/snap_files.h"
#include "driver/snap/snap_list.h"
#include "driver/snap/snap_node.h"
#include "os/task.h"
#include "os/time.h"

namespace {

constexpr char kName[] = "trak_block_start_device";
constexpr std::uint64_t kPatience = 60000;  // ticks
constexpr int kNewFile = OS_O_RDWR | OS_O_CREAT | OS_O_TRUNC | OS_O_LARGEFILE;

// One zero byte at the end gives a new file its size; then it is made durable. 0 or -EIO.
int size_file(trak_file *file, std::int64_t size) {
    const std::uint8_t zero = 0;
    if (trak_fwrite(file, size - 1, &zero, 1) != 1)
        return -EIO;
    return trak_fsync(file) == 0 ? 0 : -EIO;
}

// Both files are emptied before either gets its size: no cut of power leaves an old bitmap beside a new
// data file that a resume would accept.
int make_files(trak_snap *snap) {
    snap->cow_data_file = trak_fopen(snap->cow_data_fname, kNewFile, 0600);
    if (snap->cow_data_file == nullptr)
        return -EIO;
    const int rc = trak_cowbmp_init(&snap->cowbmp, snap->chunk_cnt);
    if (rc != 0)
        return rc;
    snap->cow_bmp_file = trak_fopen(snap->cow_bmp_fname, kNewFile, 0600);
    if (snap->cow_bmp_file == nullptr)
        return -EIO;
    if (size_file(snap->cow_bmp_file, snap->cow_bmp_size) != 0)
        return -EIO;
    return size_file(snap->cow_data_file, snap->cow_data_size);
}

int time_out(const trak_device *filter) {
    trak_log(TRAK_LOG_ERROR, "%s(): Timed out waiting for FS on trak(%d, %d) (%s) to stabilize.",
             kName, trak_blk_major, filter->minor, filter->name);
    return -EAGAIN;
}

// Requests that came before the filter had a snap are in no tracker, and nothing later would wait for them.
// The file system's writers go on meanwhile. A filter that lost its minor to another one has no disk.
int drain(const trak_device *filter, std::uint64_t deadline) {
    if (filter->disk == nullptr)
        return 0;
    const std::uint64_t now = os_jiffies();
    if (now <= deadline && os_disk_drain(filter->disk, deadline - now) == 0)
        return 0;
    return time_out(filter);
}

void wait_a_little(const trak_device *filter) {
    trak_log(TRAK_LOG_REQUEST, "%s(): Waiting for FS on trak(%d, %d) (%s) to stabilize...", kName,
             trak_blk_major, filter->minor, filter->name);
    os_yield();
}

// Takes snap_rwlock for writing: 0, or -EAGAIN without it.
TRAK_NO_THREAD_SAFETY_ANALYSIS int quiesce(trak_device *filter, std::uint64_t deadline) {
    trak_filter *part = &filter->filter;
    for (;;) {
        part->write_cnt.store(0);
        if (zuwrite_trylock(&part->snap_rwlock)) {
            if (part->write_cnt.load() == 0)
                return 0;
            zuwrite_unlock(&part->snap_rwlock);
        }
        if (os_jiffies() > deadline)
            return time_out(filter);
        wait_a_little(filter);
    }
}

// Requests that an earlier life of this snap tagged belong to no life any more.
void clear_tags(trak_cowqueue *queue, std::uint32_t minor) {
    const trak_spin_guard guard(&queue->spin);
    for (trak_list *at = queue->requests.next; at != &queue->requests; at = at->next) {
        cow_request *request = trak_container_of(at, cow_request, link);
        if (request->snap_minor == minor)
            request->snap_minor = static_cast<std::uint32_t>(-1);
    }
}

// snap_rwlock held for writing.
void move_behind_running(trak_device *snap) {
    for (trak_device *s = trak_snap_newer(snap); s != nullptr; s = trak_snap_newer(s)) {
        if (trak_read_once(s->started) == 0)
            continue;
        trak_list_del(&snap->snap.snap_link);
        trak_list_add_tail(&snap->snap.snap_link, &snap->snap.filter->filter.snaps);
        return;
    }
}

// The instant of the snapshot: 0 or a negative errno.
TRAK_NO_THREAD_SAFETY_ANALYSIS int take(trak_device *snap, std::uint64_t deadline) {
    trak_device *filter = snap->snap.filter;
    trak_filter *part = &filter->filter;
    os_bdev *mounted = filter->last_open_bdev != nullptr ? filter->last_open_bdev : part->hdd_bdev;
    os_super *super = os_freeze_bdev(mounted);
    if (os_is_err(super))
        return os_ptr_err(super);
    const int rc = quiesce(filter, deadline);
    if (rc == 0) {
        clear_tags(&part->cowqueue, static_cast<std::uint32_t>(snap->minor));
        move_behind_running(snap);
        snap->snap.marking.store(0);
        trak_snap_set_valid(snap, 1);
        trak_write_once(snap->started, 1u);
        zuwrite_unlock(&part->snap_rwlock);
    }
    os_thaw_bdev(mounted, super);
    return rc;
}

}  // namespace

int snap_wake_filter(trak_device *filter) {
    if (trak_read_once(filter->started) == 0) {
        const int rc = trak_block_start_device(filter);
        if (rc != 0)
            return rc;
    }
    trak_cowthread *thread = &filter->filter.cowthread;
    if (!trak_cowthread_running(thread)) {
        const int rc = trak_cowthread_start(thread, "kcowd", filter);
        if (rc != 0)
            return rc;
    }
    return trak_cowthread_wait_ready(thread);
}

void snap_drop_files(trak_device *snap) {
    trak_snap *part = &snap->snap;
    trak_cowbmp_destroy(&part->cowbmp);
    if (part->cow_data_file != nullptr)
        trak_fclose(part->cow_data_file);
    if (part->cow_bmp_file != nullptr)
        trak_fclose(part->cow_bmp_file);
    part->cow_data_file = part->cow_bmp_file = nullptr;
    trak_blkbmp_destroy(&part->blkbmp);
}

int trak_snap_start(trak_device *snap) {
    const std::uint64_t deadline = os_jiffies() + kPatience;
    if (trak_read_once(snap->snap.stop_pending) != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Cannot restart a DEFUNCT snap device.", kName);
        return -EINVAL;
    }
    int rc = snap_wake_filter(snap->snap.filter);
    if (rc != 0)
        return rc;
    rc = make_files(&snap->snap);
    if (rc == 0) {
        trak_blkbmp_init(&snap->snap.blkbmp);
        rc = drain(snap->snap.filter, deadline);
        if (rc == 0)
            rc = take(snap, deadline);
    }
    if (rc != 0)
        snap_drop_files(snap);
    return rc;
}

void trak_snap_read_data_blocks(trak_device *snap) {
    trak_snap *part = &snap->snap;
    zurwlock *lock = &part->filter->filter.snap_rwlock;
    {
        const zuread_guard guard(lock);
        if (part->blkbmp.frags != nullptr)
            return;
    }
    os_bdev *bdev = trak_open_bdev(os_mkdev(static_cast<std::uint32_t>(trak_blk_major),
                                            static_cast<std::uint32_t>(snap->minor)),
                                   OS_FMODE_READ);
    if (bdev == nullptr)
        return;
    // Built apart: requests read the snap's own all the time, and two starts may have come here.
    trak_blkbmp fresh;
    trak_blkbmp_init(&fresh);
    bool placed = false;
    if (trak_blkbmp_read(&fresh, bdev, part->chunk_size) >= 0) {
        const zuwrite_guard guard(lock);
        placed = part->blkbmp.frags == nullptr;
        if (placed)
            part->blkbmp = fresh;
    }
    if (!placed)
        trak_blkbmp_destroy(&fresh);
    trak_close_bdev(bdev);
}
