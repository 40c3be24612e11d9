// os/linux/file.c: files from kernel context
// SPDX-License-Identifier: GPL-2.0-only
//
// Paths are those of the calling process; the module's own threads see init's.
#include "os/file.h"

#include <linux/err.h>
#include <linux/fs.h>

#include <compat_file.h>

static struct file *real_file(struct os_file *file) {
    return (struct file *)file;
}

struct os_file *os_filp_open(const char *path, int flags, int mode) {
    _Static_assert(OS_O_RDWR == O_RDWR && OS_O_CREAT == O_CREAT && OS_O_TRUNC == O_TRUNC &&
                       OS_O_LARGEFILE == 0100000 && (OS_O_SYNC & O_SYNC) == O_SYNC,
                   "open flags");
    if (path[0] != '/')
        return ERR_PTR(-EINVAL);
    /* A pipe or a terminal in a file's place must not hold the driver up. */
    return (struct os_file *)compat_open_file(path, flags | O_LARGEFILE | O_NOCTTY | O_NONBLOCK,
                                              mode);
}

int os_filp_close(struct os_file *file) {
    return compat_close_file(real_file(file));
}

long os_vfs_read(struct os_file *file, void *buf, size_t count, int64_t *pos) {
    return compat_read(real_file(file), buf, count, pos);
}

long os_vfs_write(struct os_file *file, const void *buf, size_t count, int64_t *pos) {
    return compat_write(real_file(file), buf, count, pos);
}

long os_vfs_write_pages(struct os_file *file, struct os_page *const *pages, uint32_t count,
                        int64_t *pos) {
    return compat_write_pages(real_file(file), (struct page *const *)pages, count, pos);
}

int os_vfs_fsync(struct os_file *file) {
    return real_file(file)->f_op->fsync ? compat_fsync(real_file(file)) : 0;
}

int64_t os_file_size(struct os_file *file) {
    return i_size_read(compat_inode(real_file(file)));
}
