// os/linux/file.c: files from kernel context
// SPDX-License-Identifier: GPL-2.0-only
//
// Paths are those of the calling process; the module's own threads see init's.
#include "os/file.h"

#include <linux/bvec.h>
#include <linux/err.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/sched.h>
#include <linux/uio.h>

#include <compat_file.h>

static struct file *real_file(struct os_file *file) {
    return (struct file *)file;
}

struct os_file *os_filp_open(const char *path, int flags, int mode) {
    static_assert(OS_O_RDWR == O_RDWR && OS_O_CREAT == O_CREAT && OS_O_TRUNC == O_TRUNC &&
                      OS_O_LARGEFILE == 0100000 && OS_O_SYNC == O_SYNC,
                  "open flags");
    if (path[0] != '/')
        return ERR_PTR(-EINVAL);
    /* A pipe or a terminal in a file's place must not hold the driver up. */
    return (struct os_file *)filp_open(path, flags | O_LARGEFILE | O_NOCTTY | O_NONBLOCK, mode);
}

// A process lets its files go on its way back to user space; a thread never goes there, and the kernel
// would close them some time later, with the file system busy until then. (So it does for a process that
// ends, for which there is no other way.)
int os_filp_close(struct os_file *file) {
    struct file *real = real_file(file);
    int rc = 0;

    if (!(current->flags & PF_KTHREAD))
        return filp_close(real, NULL);
    if (real->f_op->flush)
        rc = real->f_op->flush(real, NULL);
    __fput_sync(real);
    return rc;
}

long os_vfs_read(struct os_file *file, void *buf, size_t count, int64_t *pos) {
    return kernel_read(real_file(file), buf, count, pos);
}

long os_vfs_write(struct os_file *file, const void *buf, size_t count, int64_t *pos) {
    return kernel_write(real_file(file), buf, count, pos);
}

long os_vfs_write_pages(struct os_file *file, struct os_page *const *pages, uint32_t count,
                        int64_t *pos) {
    struct bio_vec vecs[32];
    struct iov_iter iter;
    uint32_t i;
    long rc;

    count = min_t(uint32_t, count, ARRAY_SIZE(vecs));
    for (i = 0; i < count; i++) {
        vecs[i].bv_page = (struct page *)pages[i];
        vecs[i].bv_len = PAGE_SIZE;
        vecs[i].bv_offset = 0;
    }
    iov_iter_bvec(&iter, WRITE, vecs, count, (size_t)count * PAGE_SIZE);
    compat_start_write(real_file(file));
    rc = vfs_iter_write(real_file(file), &iter, pos, 0);
    compat_end_write(real_file(file));
    return rc;
}

int os_vfs_fsync(struct os_file *file) {
    return real_file(file)->f_op->fsync ? vfs_fsync(real_file(file), 0) : 0;
}

int64_t os_file_size(struct os_file *file) {
    return i_size_read(file_inode(real_file(file)));
}
