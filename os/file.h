// os/file.h: files and paths from kernel context
// SPDX-License-Identifier: GPL-2.0-only
//
// Every call here sleeps. Pointers are handles or error values (os_is_err).
#ifndef TRAK_OS_FILE_H
#define TRAK_OS_FILE_H

#include "os/base.h"
#include "os/bdev.h"
#include "os/memory.h"

OS_BEGIN

struct os_file;   /* an open file */
struct os_dentry; /* a referenced directory entry */
struct os_parent; /* the result of looking up the parent of a path */

/* Open flags, in the values of x86-64 Linux. */
enum {
    OS_O_RDONLY = 0,
    OS_O_WRONLY = 1,
    OS_O_RDWR = 2,
    OS_O_ACCMODE = 3,
    OS_O_CREAT = 0100,
    OS_O_TRUNC = 01000,
    OS_O_LARGEFILE = 0100000,
    OS_O_SYNC = 04010000,
};

/* File type bits of a mode. */
enum { OS_S_IFMT = 0170000, OS_S_IFBLK = 0060000, OS_S_IFCHR = 0020000, OS_S_IFREG = 0100000 };

/* Relative paths are refused with -EINVAL where a path is looked up; the driver opens absolute
 * paths only. */
struct os_file *os_filp_open(const char *path, int flags, int mode) OS_MUST_CHECK;
int os_filp_close(struct os_file *file);
/* One read or write of kernel memory at *pos, which advances by the result. Returns the number of
 * bytes moved, which may be fewer than asked (0 at end of file), or a negative errno. */
long os_vfs_read(struct os_file *file, void *buf, size_t count, int64_t *pos) OS_MUST_CHECK;
long os_vfs_write(struct os_file *file, const void *buf, size_t count, int64_t *pos) OS_MUST_CHECK;
/* Writes `count` whole pages (at least 1), one behind the other, at *pos, which advances by the
 * result: the number of bytes written, which may be fewer than asked and end inside a page, or a
 * negative errno where none was. A platform may take fewer pages than it is given. */
long os_vfs_write_pages(struct os_file *file, struct os_page *const *pages, uint32_t count,
                        int64_t *pos) OS_MUST_CHECK;
/* Everything written to the file is durable when it returns 0; 0 where there is no such operation. */
int os_vfs_fsync(struct os_file *file) OS_MUST_CHECK;
int64_t os_file_size(struct os_file *file); /* bytes, of the file's inode */

/* Looks an absolute path up. follow: whether a symbolic link at its end is followed. An entry
 * without an inode is null; a failed lookup an error value. */
struct os_dentry *os_path_lookup(const char *path, int follow) OS_MUST_CHECK;
void os_dput(struct os_dentry *dentry);
bool os_dentry_positive(const struct os_dentry *dentry); /* has an inode */
const char *os_dentry_name(const struct os_dentry *dentry);
uint32_t os_dentry_mode(const struct os_dentry *dentry);     /* type and permission bits */
const void *os_dentry_inode(const struct os_dentry *dentry); /* its identity, for messages */
uint64_t os_dentry_ino(const struct os_dentry *dentry);
os_dev_t os_dentry_rdev(const struct os_dentry *dentry); /* device number of a special file */
/* Device number of the block device under the entry's file system; 0 where it has none. */
os_dev_t os_dentry_sb_dev(const struct os_dentry *dentry);

/* Looks the parent folder of a path up (it must exist); released with os_parent_put. */
struct os_parent *os_path_parent(const char *path) OS_MUST_CHECK;
void os_parent_put(struct os_parent *parent);
void os_parent_lock(struct os_parent *parent); /* the folder's inode mutex */
void os_parent_unlock(struct os_parent *parent);
/* The last component: an ordinary name (not ".", ".." or "/"), and whether text followed it. */
bool os_parent_last_is_normal(const struct os_parent *parent);
bool os_parent_last_has_tail(const struct os_parent *parent);
/* The entry of the last component, without an inode where none exists. Parent locked. */
struct os_dentry *os_lookup_hash(struct os_parent *parent) OS_MUST_CHECK;
/* -ENOENT for an entry without an inode; os_vfs_mknod -EEXIST for one that has one. Parent locked. */
int os_vfs_unlink(struct os_parent *parent, struct os_dentry *dentry) OS_MUST_CHECK;
int os_vfs_mknod(struct os_parent *parent, struct os_dentry *dentry, uint32_t mode,
                 os_dev_t dev) OS_MUST_CHECK;

OS_END

#endif
