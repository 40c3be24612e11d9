// driver/utils/trak_utils.h: files, paths and disks from kernel context
// SPDX-License-Identifier: GPL-2.0-only
//
// Context    every call sleeps; none may be made from the request path or under a spin lock.
// Logging    each helper logs its own failure at level 255.
// Owner      whoever opened a handle uses it from one thread at a time and closes it.
#ifndef TRAK_UTILS_TRAK_UTILS_H
#define TRAK_UTILS_TRAK_UTILS_H

#include <cstdint>

#include "os/bdev.h"
#include "os/bio.h"
#include "os/file.h"

struct trak_file {
    char *fname;    // owned copy of the path, for messages
    os_file *filp;  // never an error value in a handle that was returned
};

// A new handle, or null.
[[nodiscard]] trak_file *trak_fopen(const char *path, int flags, int mode);
// The close's result; the handle is freed in every case. Not null.
int trak_fclose(trak_file *file);
// Bytes read (fewer at end of file), or a negative errno. count <= 0 gives 0.
[[nodiscard]] int trak_fread(trak_file *file, std::int64_t offset, void *buf, int count);
// The full count, or a negative errno.
[[nodiscard]] int trak_fwrite(trak_file *file, std::int64_t offset, const void *buf, int count);
// trak_fwrite of so many whole pages, one behind the other: 0, or the negative errno (and the message)
// that writing the first page that could not be written gave.
[[nodiscard]] int trak_fwrite_pages(trak_file *file, std::int64_t offset, os_page *const *pages,
                                    std::uint32_t count);
[[nodiscard]] int trak_fsync(trak_file *file);
// Cuts an existing file to length 0. Always 0.
int trak_ftruncate(const char *path);
// A referenced entry (os_dput), null for one without an inode, or an error value.
[[nodiscard]] os_dentry *trak_get_file_dentry(const char *path, int follow);
// Device number under the file system that holds the path or its nearest existing ancestor; 0: none.
[[nodiscard]] os_dev_t trak_get_file_devt(const char *path);
int trak_mknod(const char *path, int block, int major, int minor);
// -ENOENT, without a message, where the name does not exist.
int trak_unlink(const char *path);
// The entry of the last component with the parent's mutex HELD in every case, or an error value.
[[nodiscard]] os_dentry *trak_lookup_create(os_parent *parent);

// Null on any failure.
[[nodiscard]] os_bdev *trak_open_bdev(os_dev_t dev, std::uint32_t mode);
void trak_close_bdev(os_bdev *bdev);
[[nodiscard]] int trak_is_mounted(os_bdev *bdev);
// Reads `count` consecutive blocks of `size` bytes from block number `block` into buf, packed, past
// the page cache. 0, -EINVAL (size above a page), -ENOMEM or -EIO.
[[nodiscard]] int trak_bread(os_bdev *bdev, void *buf, int size, std::int64_t block, int count);
// Completion of such a read: its private data is an os_completion.
void trak_bio_complete(os_bio *bio, int error);

#endif
