// driver/block/bitmap_commands.cpp: the seven commands on change bitmaps
// SPDX-License-Identifier: GPL-2.0-only
//
// Copies between the caller and a bitmap go through a buffer of the kernel, because bmp_spin guards the
// bits and a user copy may sleep. Get-and-clear keeps the atomicity that callers rely on by clearing
// exactly the bits that it handed out, and only once the caller has them: a bit that a write sets in
// between stays, a fault changes nothing.
#include "driver/block/bitmap_commands.h"

#include "driver/block/bitmap_file.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "os/memory.h"
#include "os/uaccess.h"

namespace {

struct change_bmp {
    std::uint8_t *bits;
    std::uint32_t size;
    std::uint32_t *dirty;
};

// A buffer of the kernel, freed at the end of its scope.
class kernel_buffer {
  public:
    explicit kernel_buffer(std::uint32_t size)
        : bytes_(static_cast<std::uint8_t *>(os_vmalloc(size))) {}
    ~kernel_buffer() { os_vfree(bytes_); }
    kernel_buffer(const kernel_buffer &) = delete;
    kernel_buffer &operator=(const kernel_buffer &) = delete;
    std::uint8_t *bytes() const { return bytes_; }

  private:
    std::uint8_t *bytes_;
};

// The beginning of every command, after its own message: 0 and the chosen bitmap, or -EINVAL.
int begin(const char *function, trak_device *dev, std::uint32_t type, change_bmp *bmp) {
    if (!trak_is_filter(dev)) {
        trak_log(TRAK_LOG_ERROR, "%s(): trak(%d, %d) is not a filter device", function,
                 trak_blk_major, dev->minor);
        return -EINVAL;
    }
    if (type > TRAK_BMP_INCR) {
        trak_log(TRAK_LOG_ERROR, "%s(): Invalid bitmap type %d (should be either %d or %d)",
                 function, type, TRAK_BMP_INCR, TRAK_BMP_DIFF);
        return -EINVAL;
    }
    trak_filter *filter = &dev->filter;
    if (type == TRAK_BMP_INCR)
        *bmp = {filter->incr_bmp, static_cast<std::uint32_t>(filter->incr_bmp_size),
                &filter->incr_bmp_dirty};
    else
        *bmp = {filter->diff_bmp, static_cast<std::uint32_t>(filter->diff_bmp_size),
                &filter->diff_bmp_dirty};
    return 0;
}

void log_action(const char *function, const char *format, const trak_device *dev,
                std::uint32_t type) {
    trak_log(TRAK_LOG_MILESTONE, format, function, trak_bmp_type_name(type), trak_blk_major,
             dev->minor);
}

int check_size(const char *function, std::uint32_t size, const change_bmp &bmp) {
    if (size == bmp.size)
        return 0;
    trak_log(TRAK_LOG_ERROR, "%s(): Invalid bitmap size %d. Should have been %d", function, size,
             bmp.size);
    return -EINVAL;
}

// The caller's buffer has the bitmap's size and an address.
int check_data(const char *function, const trak_bmp_data_arg *arg, const change_bmp &bmp) {
    const int rc = check_size(function, arg->size, bmp);
    if (rc != 0)
        return rc;
    if (arg->data != 0)
        return 0;
    trak_log(TRAK_LOG_ERROR, "%s(): NULL bitmap data pointer passed as input", function);
    return -EINVAL;
}

int no_buffer(const char *function, std::uint32_t size) {
    trak_log(TRAK_LOG_ERROR, "%s(): Failed to allocate a %d-byte buffer", function, size);
    return -ENOMEM;
}

// The bitmap of this moment, to the caller by way of the buffer.
int copy_out(const char *function, trak_filter *filter, const change_bmp &bmp,
             const kernel_buffer &buffer, os_uaddr to) {
    {
        const trak_spin_guard spin(&filter->bmp_spin);
        memcpy(buffer.bytes(), bmp.bits, bmp.size);
    }
    if (os_copy_to_user(to, buffer.bytes(), bmp.size) == 0)
        return 0;
    trak_log(TRAK_LOG_ERROR, "%s(): Failed to copyout the bitmap", function);
    return -EFAULT;
}

int copy_in(const char *function, const kernel_buffer &buffer, const trak_bmp_data_arg *arg) {
    if (os_copy_from_user(buffer.bytes(), arg->data, arg->size) == 0)
        return 0;
    trak_log(TRAK_LOG_ERROR, "%s(): Failed to copyin the bitmap", function);
    return -EFAULT;
}

// Every byte of the bitmap.
void fill(trak_filter *filter, const change_bmp &bmp, std::uint8_t byte) {
    const trak_spin_guard spin(&filter->bmp_spin);
    trak_bits_fill(bmp.bits, byte, bmp.size);
    trak_write_once(*bmp.dirty, 1u);
}

// The caller's bitmap instead of the one there, or everything where there is none.
int replace(const char *function, trak_filter *filter, const change_bmp &bmp,
            const trak_bmp_data_arg *arg) {
    if (arg->data == 0) {
        fill(filter, bmp, 0xff);
        return 0;
    }
    const kernel_buffer buffer(bmp.size);
    if (buffer.bytes() == nullptr)
        return no_buffer(function, bmp.size);
    const int rc = copy_in(function, buffer, arg);
    if (rc != 0)
        return rc;
    const trak_spin_guard spin(&filter->bmp_spin);
    trak_bits_copy(bmp.bits, buffer.bytes(), bmp.size);
    trak_write_once(*bmp.dirty, 1u);
    return 0;
}

}  // namespace

int trak_ioctl_get_bmp(trak_device *dev, trak_bmp_data_arg *arg) {
    change_bmp bmp;
    log_action(__func__, "%s(): Getting %s bitmap of trak(%d, %d)", dev, arg->type);
    int rc = begin(__func__, dev, arg->type, &bmp);
    if (rc == 0)
        rc = check_data(__func__, arg, bmp);
    if (rc != 0)
        return rc;
    const kernel_buffer buffer(bmp.size);
    if (buffer.bytes() == nullptr)
        return no_buffer(__func__, bmp.size);
    return copy_out(__func__, &dev->filter, bmp, buffer, arg->data);
}

int trak_ioctl_get_and_clr_bmp(trak_device *dev, trak_bmp_data_arg *arg) {
    change_bmp bmp;
    log_action(__func__, "%s(): Getting and clearing %s bitmap of trak(%d, %d)", dev, arg->type);
    int rc = begin(__func__, dev, arg->type, &bmp);
    if (rc == 0)
        rc = check_data(__func__, arg, bmp);
    if (rc != 0)
        return rc;
    trak_filter *filter = &dev->filter;
    {
        const kernel_buffer buffer(bmp.size);
        if (buffer.bytes() == nullptr)
            return no_buffer(__func__, bmp.size);
        // No load and no other get-and-clear comes between the copy and the clearing.
        const zumutex_guard mutex(&filter->bmp_mutex);
        rc = copy_out(__func__, filter, bmp, buffer, arg->data);
        if (rc != 0)
            return rc;
        const trak_spin_guard spin(&filter->bmp_spin);
        trak_bits_clear_those(bmp.bits, buffer.bytes(), bmp.size);
        trak_write_once(*bmp.dirty, 1u);
    }
    trak_block_save_dirty_bmps(filter);
    return 0;
}

int trak_ioctl_clr_bmp(trak_device *dev, trak_bmp_arg *arg) {
    change_bmp bmp;
    log_action(__func__, "%s(): Clearing %s bitmap of trak(%d, %d)", dev, arg->type);
    const int rc = begin(__func__, dev, arg->type, &bmp);
    if (rc != 0)
        return rc;
    fill(&dev->filter, bmp, 0);
    trak_block_save_dirty_bmps(&dev->filter);
    return 0;
}

int trak_ioctl_set_bmp(trak_device *dev, trak_bmp_data_arg *arg) {
    change_bmp bmp;
    log_action(__func__, "%s(): Setting %s bitmap of trak(%d, %d)", dev, arg->type);
    int rc = begin(__func__, dev, arg->type, &bmp);
    if (rc != 0)
        return rc;
    if ((arg->size == 0) != (arg->data == 0)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): bitmap size and bitmap data pointer must either be both "
                                  "NULL or both not-NULL");
        return -EINVAL;
    }
    if (arg->size != 0) {
        rc = check_size(__func__, arg->size, bmp);
        if (rc != 0)
            return rc;
    }
    rc = replace(__func__, &dev->filter, bmp, arg);
    if (rc != 0)
        return rc;
    trak_block_save_dirty_bmps(&dev->filter);
    return 0;
}

int trak_ioctl_merge_bmp(trak_device *dev, trak_bmp_data_arg *arg) {
    change_bmp bmp;
    log_action(__func__, "%s(): Merging %s bitmap of trak(%d, %d)", dev, arg->type);
    int rc = begin(__func__, dev, arg->type, &bmp);
    if (rc == 0)
        rc = check_data(__func__, arg, bmp);
    if (rc != 0)
        return rc;
    const kernel_buffer buffer(bmp.size);
    if (buffer.bytes() == nullptr)
        return no_buffer(__func__, bmp.size);
    rc = copy_in(__func__, buffer, arg);
    if (rc != 0)
        return rc;
    {
        const trak_spin_guard spin(&dev->filter.bmp_spin);
        trak_bits_or(bmp.bits, buffer.bytes(), bmp.size);
        trak_write_once(*bmp.dirty, 1u);
    }
    trak_block_save_dirty_bmps(&dev->filter);
    return 0;
}

int trak_ioctl_save_bmp(trak_device *dev, trak_bmp_arg *arg) {
    change_bmp bmp;
    log_action(__func__, "%s(): Saving %s bitmap of trak(%d, %d)", dev, arg->type);
    const int rc = begin(__func__, dev, arg->type, &bmp);
    return rc != 0 ? rc : trak_block_save_bmp(&dev->filter, arg->type);
}

int trak_ioctl_load_bmp(trak_device *dev, trak_bmp_arg *arg) {
    change_bmp bmp;
    log_action(__func__, "%s(): Loading %s bitmap of trak(%d, %d)", dev, arg->type);
    const int rc = begin(__func__, dev, arg->type, &bmp);
    return rc != 0 ? rc : trak_block_load_bmp(&dev->filter, arg->type);
}
