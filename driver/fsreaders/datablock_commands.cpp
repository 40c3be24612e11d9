// driver/fsreaders/datablock_commands.cpp: the data-block commands
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/fsreaders/datablock_commands.h"

#include "driver/fsreaders/blkbmp.h"
#include "driver/fsreaders/self_test.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/utils/atomic.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "driver/utils/trak_utils.h"
#include "os/memory.h"
#include "os/uaccess.h"

namespace {

// What a request may not be, in the order in which it is told: 0 or -EINVAL. The snap's dev_mutex is
// held.
int check_request(const trak_device *dev, const trak_datablock_arg *arg, const char *function) {
    if (trak_read_once(dev->started) == 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Snap device trak(%d, %d) has not been started yet",
                 function, trak_blk_major, dev->minor);
        return -EINVAL;
    }
    if (arg->data == 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): NULL bitmap data pointer passed as input", function);
        return -EINVAL;
    }
    if (arg->extent_size <= 1 || !trak_is_power_of_two(arg->extent_size)) {
        trak_log(TRAK_LOG_ERROR, "%s(): Extent size (%d) must have been a power of 2.", function,
                 arg->extent_size);
        return -EINVAL;
    }
    if (arg->extent_size < dev->snap.chunk_size) {
        trak_log(TRAK_LOG_ERROR, "%s(): Extent size (%d) must be bigger than chunk size (%d).",
                 function, arg->extent_size, dev->snap.chunk_size);
        return -EINVAL;
    }
    return 0;
}

// Bytes of the answer. A bitmap that was never built counts no chunks, and yet every extent of the disk
// is to be reported as holding data.
std::uint64_t bytes_needed(const trak_device *dev, std::uint32_t ratio) {
    const trak_blkbmp &bmp = dev->snap.blkbmp;
    const std::uint64_t chunks = bmp.valid != 0 ? bmp.chunk_cnt : dev->snap.chunk_cnt;
    return ((chunks + ratio - 1) / ratio + 7) >> 3;
}

// The bitmap at the caller's extent size in a buffer of *bytes: 0 or a negative errno with no buffer.
// Requests place a freshly read bitmap under the lock that is held here.
int export_to_buffer(const trak_device *dev, const trak_datablock_arg *arg, void **buffer,
                     std::uint64_t *bytes, const char *function) {
    const std::uint32_t ratio = arg->extent_size / dev->snap.chunk_size;
    const zuread_guard guard(&dev->snap.filter->filter.snap_rwlock);
    *bytes = bytes_needed(dev, ratio);
    if (arg->size < 0 || *bytes > static_cast<std::uint64_t>(arg->size)) {
        trak_log(TRAK_LOG_ERROR,
                 "%s(): Bitmap buffer is not large enough: should be %dB instead of %dB.", function,
                 static_cast<int>(*bytes), arg->size);
        return -EINVAL;
    }
    *buffer = os_vmalloc(*bytes);
    if (*buffer == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to allocated %d bytes of memory", function,
                 static_cast<int>(*bytes));
        return -ENOMEM;
    }
    const int rc =
        trak_blkbmp_export(&dev->snap.blkbmp, ratio, *buffer, static_cast<std::uint32_t>(*bytes));
    if (rc != 0)
        os_vfree(*buffer);
    return rc;
}

int export_to_caller(const trak_device *dev, trak_datablock_arg *arg, const char *function) {
    void *buffer = nullptr;
    std::uint64_t bytes = 0;
    int rc = export_to_buffer(dev, arg, &buffer, &bytes, function);
    if (rc != 0)
        return rc;
    if (os_copy_to_user(arg->data, buffer, bytes) != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to copyout the bitmap", function);
        rc = -EFAULT;
    } else {
        arg->size = static_cast<std::int32_t>(bytes);
    }
    os_vfree(buffer);
    return rc;
}

// The device number behind a path: 0 or a negative errno.
int find_disk(const char *path, os_dev_t *dev, const char *function) {
    os_dentry *dentry = trak_get_file_dentry(path, 1);
    if (os_is_err(dentry)) {
        trak_log(TRAK_LOG_ERROR, "%s(): Unable to lookup %s: rc=%d", function, path,
                 os_ptr_err(dentry));
        return -ENOENT;
    }
    if (dentry == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Unable to derive major/minor numbers for %s", function,
                 path);
        return -EINVAL;
    }
    int rc = 0;
    if ((os_dentry_mode(dentry) & OS_S_IFMT) != OS_S_IFBLK) {
        trak_log(TRAK_LOG_ERROR, "%s(): %s is not a block device.", function, path);
        rc = -EINVAL;
    } else {
        *dev = os_dentry_rdev(dentry);
        trak_log(TRAK_LOG_COMMAND, "%s(): Successfully derived HDD major=%d, minor=%d", function,
                 os_major(*dev), os_minor(*dev));
    }
    os_dput(dentry);
    return rc;
}

}  // namespace

int trak_ioctl_get_datablock_bmp(trak_device *dev, trak_datablock_arg *arg) {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Returning datablock bitmap of trak(%d, %d)",
              trak_blk_major, dev->minor);
    if (dev->dev_type != TRAK_DEV_SNAP) {
        trak_logf(TRAK_LOG_ERROR, "%s(): trak(%d, %d) is not a snap device", trak_blk_major,
                  dev->minor);
        return -EINVAL;
    }
    // A stop frees the bitmap under this mutex.
    zumutex_guard hold(&dev->dev_mutex);
    const int rc = check_request(dev, arg, __func__);
    return rc != 0 ? rc : export_to_caller(dev, arg, __func__);
}

int trak_ioctl_test_datablock(trak_test_datablock_arg *arg) {
    // The caller may have left the name without an end.
    arg->hdd_name[TRAK_PATH_SIZE - 1] = '\0';
    const char *path = arg->hdd_name;
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Testing datablocks on %s", path);
    if (path[0] == '\0') {
        trak_logf(TRAK_LOG_ERROR, "%s(): Empty HDD name passed as input.");
        return -EINVAL;
    }
    os_dev_t dev = 0;
    int rc = find_disk(path, &dev, __func__);
    if (rc != 0)
        return rc;
    os_bdev *bdev = trak_open_bdev(dev, OS_FMODE_READ);
    if (bdev == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to open %s", path);
        return -EIO;
    }
    if (trak_is_mounted(bdev) != 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Can't test mounted HDD device %s", path);
        rc = -EBUSY;
    } else {
        rc = trak_blkbmp_test(bdev);
    }
    trak_close_bdev(bdev);
    return rc;
}
