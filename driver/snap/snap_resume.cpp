// driver/snap/snap_resume.cpp: a snapshot goes on from its files after the module was loaded again
// SPDX-License-Identifier: GPL-2.0-only
//
// What a snapshot given up left behind is a data file cut to nothing: a file that is shorter than the
// snap needs is refused, before anything about the snap changes.
//
// Snaps of one filter are resumed newest first, before the filter is written: what is written while
// only an older one runs is preserved there, where the newer one never looks.
#include "driver/block/locks.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/snap_files.h"
#include "driver/snap/snap_list.h"
#include "driver/snap/snap_node.h"

namespace {

constexpr char kName[] = "trak_ioctl_resume_snap";
constexpr int kOldFile = OS_O_RDWR | OS_O_SYNC | OS_O_LARGEFILE;

// An open file of at least `size` bytes, or null.
trak_file *open_whole(const char *path, std::int64_t size) {
    trak_file *file = trak_fopen(path, kOldFile, 0600);
    if (file == nullptr)
        return nullptr;
    const std::int64_t actual = os_file_size(file->filp);
    if (actual >= size)
        return file;
    trak_log(TRAK_LOG_ERROR, "%s(): %s is too short: %lld bytes instead of %lld", kName, path,
             static_cast<long long>(actual), static_cast<long long>(size));
    trak_fclose(file);
    return nullptr;
}

// Both files and the bitmap: 0 or a negative errno; the caller drops what was opened.
int open_files(trak_snap *snap) {
    snap->cow_data_file = open_whole(snap->cow_data_fname, snap->cow_data_size);
    if (snap->cow_data_file == nullptr)
        return -EIO;
    int rc = trak_cowbmp_init(&snap->cowbmp, snap->chunk_cnt);
    if (rc == 0)
        rc = trak_cowbmp_load(&snap->cowbmp, snap->cow_bmp_fname);
    if (rc != 0)
        return rc;
    snap->cow_bmp_file = open_whole(snap->cow_bmp_fname, snap->cow_bmp_size);
    return snap->cow_bmp_file != nullptr ? 0 : -EIO;
}

int refuse_started(std::uint32_t minor) {
    trak_log(TRAK_LOG_ERROR, "%s(): Can't resume snap trak(%d, %d): it's been started already.",
             kName, trak_blk_major, static_cast<int>(minor));
    return -EALREADY;
}

int check(trak_device *snap, std::uint32_t minor) {
    const int number = static_cast<int>(minor);
    if (snap == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Nothing is known about trak(%d, %d)", kName, trak_blk_major,
                 number);
        return -EINVAL;
    }
    if (snap->dev_type != TRAK_DEV_SNAP) {
        trak_log(TRAK_LOG_ERROR, "%s(): trak(%d, %d) is not a snap device", kName, trak_blk_major,
                 number);
        return -EINVAL;
    }
    return trak_read_once(snap->started) != 0 ? refuse_started(minor) : 0;
}

// Both dev_mutexes are held.
int resume(trak_device *snap, const trak_resume_arg *arg) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    if (trak_read_once(snap->started) != 0)  // by somebody else, since it was looked at
        return refuse_started(arg->minor);
    trak_device *filter = snap->snap.filter;
    int rc = snap_wake_filter(filter);
    if (rc != 0)
        return rc;
    rc = open_files(&snap->snap);
    if (rc != 0) {
        snap_drop_files(snap);
        return rc;
    }
    const zuwrite_guard guard(&filter->filter.snap_rwlock);
    trak_blkbmp_init(&snap->snap.blkbmp);
    snap->snap.marking.store(0);
    trak_snap_set_valid(snap, arg->snap_valid);
    trak_write_once(snap->snap.stop_pending, arg->stop_pending);
    trak_write_once(snap->snap.del_pending, arg->del_pending);
    trak_write_once(snap->started, 1u);
    return 0;
}

}  // namespace

int trak_ioctl_resume_snap(trak_resume_arg *arg) {
    const int minor = static_cast<int>(arg->minor);
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Resuming snap trak(%d, %d)", trak_blk_major, minor);
    const zuread_guard table(&trak_blkdev_rwlock);
    trak_device *snap = trak_find_device(arg->minor);
    int rc = check(snap, arg->minor);
    if (rc != 0)
        return rc;
    {
        const zumutex_guard filter_guard(&snap->snap.filter->dev_mutex);
        const zumutex_guard snap_guard(&snap->dev_mutex);
        rc = resume(snap, arg);
    }
    if (rc != 0)
        return rc;
    trak_snap_read_data_blocks(snap);
    trak_logf(TRAK_LOG_COMMAND, "%s(): trak(%d, %d) has been resumed successfully", trak_blk_major,
              minor);
    return 0;
}
