// os/user/file.cpp: files of the machine
// SPDX-License-Identifier: GPL-2.0-only
#include "os/file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "os/user/internal.h"
#include "os/user/task.h"

struct os_file {
    int fd;
};

namespace {

constexpr uint32_t kPiecesAtOnce = 256;  // on the stack; at most IOV_MAX

int host_flags(int flags) {
    static_assert(OS_O_RDWR == O_RDWR && OS_O_WRONLY == O_WRONLY && OS_O_RDONLY == O_RDONLY);
    int host = flags & OS_O_ACCMODE;
    if (flags & OS_O_CREAT)
        host |= O_CREAT;
    if (flags & OS_O_TRUNC)
        host |= O_TRUNC;
    if ((flags & OS_O_SYNC) == OS_O_SYNC)
        host |= O_SYNC;
    // A pipe or a terminal in a file's place must not hold the driver up.
    return host | O_LARGEFILE | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
}

}  // namespace

extern "C" {

os_file *os_filp_open(const char *path, int flags, int mode) {
    user::might_sleep("os_filp_open");
    std::string folder, name;
    if (path[0] != '/')
        return static_cast<os_file *>(os_err_ptr(-EINVAL));
    if (user::split_own_path(path, &folder, &name))
        return static_cast<os_file *>(os_err_ptr(-ENXIO));
    int fd;
    do
        fd = open(path, host_flags(flags), static_cast<mode_t>(mode));
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return static_cast<os_file *>(os_err_ptr(-errno));
    os_file *file = new (std::nothrow) os_file{fd};
    if (!file) {
        close(fd);
        return static_cast<os_file *>(os_err_ptr(-ENOMEM));
    }
    return file;
}

int os_filp_close(os_file *file) {
    user::might_sleep("os_filp_close");
    int rc = close(file->fd) ? -errno : 0;  // the descriptor is gone either way
    delete file;
    return rc;
}

long os_vfs_read(os_file *file, void *buf, size_t count, int64_t *pos) {
    user::might_sleep("os_vfs_read");
    ssize_t got;
    do
        got = pread(file->fd, buf, count, *pos);
    while (got < 0 && errno == EINTR);
    if (got < 0)
        return -errno;
    *pos += got;
    return got;
}

long os_vfs_write(os_file *file, const void *buf, size_t count, int64_t *pos) {
    user::might_sleep("os_vfs_write");
    ssize_t put;
    do
        put = pwrite(file->fd, buf, count, *pos);
    while (put < 0 && errno == EINTR);
    if (put < 0)
        return -errno;
    *pos += put;
    return put;
}

long os_vfs_write_pages(os_file *file, os_page *const *pages, uint32_t count, int64_t *pos) {
    user::might_sleep("os_vfs_write_pages");
    iovec pieces[kPiecesAtOnce];
    count = std::min(count, kPiecesAtOnce);
    for (uint32_t i = 0; i < count; i++)
        pieces[i] = {os_page_address(pages[i]), OS_PAGE_SIZE};
    ssize_t put;
    do
        put = pwritev(file->fd, pieces, static_cast<int>(count), *pos);
    while (put < 0 && errno == EINTR);
    if (put < 0)
        return -errno;
    *pos += put;
    return put;
}

int os_vfs_fsync(os_file *file) {
    user::might_sleep("os_vfs_fsync");
    int rc;
    do
        rc = fdatasync(file->fd);
    while (rc && errno == EINTR);
    // What has no sync operation says EINVAL.
    return rc && errno != EINVAL ? -errno : 0;
}

int64_t os_file_size(os_file *file) {
    struct stat st;
    return fstat(file->fd, &st) ? 0 : st.st_size;
}

}  // extern "C"
