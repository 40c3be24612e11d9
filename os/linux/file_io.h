// os/linux/file_io.h: reading, writing and closing files, in kernels that do so from iterators
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_FILE_IO_H
#define TRAK_OS_LINUX_FILE_IO_H

#include <linux/bvec.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/sched.h>
#include <linux/uio.h>

#define compat_inode(file) file_inode(file)

static inline struct file *compat_open_file(const char *path, int flags, int mode) {
    return filp_open(path, flags, mode);
}

/* A process lets its files go on its way back to user space; a thread never goes there, and the kernel
 * would close them some time later, with the file system busy until then. (So it does for a process that
 * ends, for which there is no other way.) */
static inline int compat_close_file(struct file *file) {
    int rc = 0;

    if (!(current->flags & PF_KTHREAD))
        return filp_close(file, NULL);
    if (file->f_op->flush)
        rc = file->f_op->flush(file, NULL);
    __fput_sync(file);
    return rc;
}

static inline long compat_read(struct file *file, void *buf, size_t count, loff_t *pos) {
    return kernel_read(file, buf, count, pos);
}

static inline long compat_write(struct file *file, const void *buf, size_t count, loff_t *pos) {
    return kernel_write(file, buf, count, pos);
}

/* So many of the pages as one call takes. */
static inline long compat_write_pages(struct file *file, struct page *const *pages, uint32_t count,
                                      loff_t *pos) {
    struct bio_vec vecs[32];
    struct iov_iter iter;
    uint32_t i;
    long rc;

    count = min_t(uint32_t, count, ARRAY_SIZE(vecs));
    for (i = 0; i < count; i++) {
        vecs[i].bv_page = pages[i];
        vecs[i].bv_len = PAGE_SIZE;
        vecs[i].bv_offset = 0;
    }
    iov_iter_bvec(&iter, WRITE, vecs, count, (size_t)count * PAGE_SIZE);
    compat_start_write(file);
    rc = vfs_iter_write(file, &iter, pos, 0);
    compat_end_write(file);
    return rc;
}

static inline int compat_fsync(struct file *file) {
    return vfs_fsync(file, 0);
}

#endif
