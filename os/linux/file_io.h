// os/linux/file_io.h: reading, writing and closing files, in kernels that do so from iterators
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_FILE_IO_H
#define TRAK_OS_LINUX_FILE_IO_H

#include <linux/bvec.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/sched.h>
#include <linux/slab.h>
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

/* From here on a write costs less past the page cache, page for page, than through it. */
enum { direct_pages = 16, most_pages = 256, stack_pages = 32 };

/* Straight to the disk, as the loop device writes; an error where the file system can't or won't. */
static inline long write_direct(struct file *file, struct iov_iter *iter, loff_t *pos) {
    struct kiocb kiocb;
    long rc;

    if (!(file->f_mode & FMODE_CAN_ODIRECT) || !file->f_op->write_iter)
        return -EOPNOTSUPP;
    init_sync_kiocb(&kiocb, file);
    kiocb.ki_flags |= IOCB_DIRECT | IOCB_WRITE;
    kiocb.ki_pos = *pos;
    file_start_write(file);
    rc = file->f_op->write_iter(&kiocb, iter);
    file_end_write(file);
    if (rc > 0)
        *pos += rc;
    return rc;
}

static inline long write_vecs(struct file *file, const struct bio_vec *vecs, uint32_t count,
                              loff_t *pos) {
    struct iov_iter iter;
    long rc;

    if (count >= direct_pages) {
        iov_iter_bvec(&iter, WRITE, vecs, count, (size_t)count * PAGE_SIZE);
        rc = write_direct(file, &iter, pos);
        if (rc > 0)
            return rc;
    }
    iov_iter_bvec(&iter, WRITE, vecs, count, (size_t)count * PAGE_SIZE);
    compat_start_write(file);
    rc = vfs_iter_write(file, &iter, pos, 0);
    compat_end_write(file);
    return rc;
}

/* So many of the pages as one call takes. */
static inline long compat_write_pages(struct file *file, struct page *const *pages, uint32_t count,
                                      loff_t *pos) {
    struct bio_vec few[stack_pages];
    struct bio_vec *many = NULL;
    struct bio_vec *vecs = few;
    uint32_t i;
    long rc;

    if (count > stack_pages)
        many = kmalloc_array(most_pages, sizeof(*many), GFP_NOIO | __GFP_NOWARN);
    if (many)
        vecs = many;
    count = min_t(uint32_t, count, many ? most_pages : stack_pages);
    for (i = 0; i < count; i++) {
        vecs[i].bv_page = pages[i];
        vecs[i].bv_len = PAGE_SIZE;
        vecs[i].bv_offset = 0;
    }
    rc = write_vecs(file, vecs, count, pos);
    kfree(many);
    return rc;
}

static inline int compat_fsync(struct file *file) {
    return vfs_fsync(file, 0);
}

#endif
