// os/linux/path.c: paths, folders and their entries
// SPDX-License-Identifier: GPL-2.0-only
//
// A handle holds the mount as well as the entry: a file system can't be unmounted under it.
#include <linux/blkdev.h>
#include <linux/dcache.h>
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/mount.h>
#include <linux/namei.h>
#include <linux/path.h>
#include <linux/slab.h>
#include <linux/string.h>

#include <compat_file.h>

#include "os/file.h"

struct os_dentry {
    struct path path;
    compat_name name; /* of the moment of the lookup */
};

struct os_parent {
    struct path path; /* the folder */
    int writable;     /* while locked: 0, or why its file system can't be written to */
    size_t length;    /* of the last component */
    bool has_tail;
    char last[];
};

// Takes the references that the path holds.
static struct os_dentry *new_dentry(struct path *path) {
    struct os_dentry *dentry = kmalloc(sizeof(*dentry), GFP_KERNEL);

    if (!dentry) {
        path_put(path);
        return ERR_PTR(-ENOMEM);
    }
    dentry->path = *path;
    if (!compat_take_name(&dentry->name, path->dentry)) {
        path_put(path);
        kfree(dentry);
        return ERR_PTR(-ENOMEM);
    }
    return dentry;
}

struct os_dentry *os_path_lookup(const char *path, int follow) {
    struct path found;
    int rc;

    if (path[0] != '/')
        return ERR_PTR(-EINVAL);
    rc = kern_path(path, follow ? LOOKUP_FOLLOW : 0, &found);
    return rc ? ERR_PTR(rc) : new_dentry(&found);
}

void os_dput(struct os_dentry *dentry) {
    compat_release_name(&dentry->name);
    path_put(&dentry->path);
    kfree(dentry);
}

bool os_dentry_positive(const struct os_dentry *dentry) {
    return dentry->path.dentry->d_inode != NULL;
}

const char *os_dentry_name(const struct os_dentry *dentry) {
    return compat_name_text(&dentry->name);
}

uint32_t os_dentry_mode(const struct os_dentry *dentry) {
    return dentry->path.dentry->d_inode->i_mode;
}

const void *os_dentry_inode(const struct os_dentry *dentry) {
    return dentry->path.dentry->d_inode;
}

uint64_t os_dentry_ino(const struct os_dentry *dentry) {
    return dentry->path.dentry->d_inode->i_ino;
}

os_dev_t os_dentry_rdev(const struct os_dentry *dentry) {
    return dentry->path.dentry->d_inode->i_rdev;
}

os_dev_t os_dentry_sb_dev(const struct os_dentry *dentry) {
    struct block_device *bdev = dentry->path.dentry->d_sb->s_bdev;

    return bdev ? bdev->bd_dev : 0;
}

// Cuts a copy of the path into the folder and the last component, which stays in `parent`.
static int split(struct os_parent *parent, char *copy) {
    char *end = copy + strlen(copy);
    char *last;

    while (end > copy && end[-1] == '/') {
        parent->has_tail = true;
        *--end = '\0';
    }
    last = strrchr(copy, '/');
    last = last ? last + 1 : copy; /* all slashes: the root, which has no name */
    parent->length = end - last;
    memcpy(parent->last, last, parent->length + 1);
    *last = '\0';
    return kern_path(*copy ? copy : "/", LOOKUP_FOLLOW | LOOKUP_DIRECTORY, &parent->path);
}

struct os_parent *os_path_parent(const char *path) {
    size_t size = strlen(path) + 1;
    struct os_parent *parent;
    char *copy;
    int rc;

    if (path[0] != '/')
        return ERR_PTR(-EINVAL);
    parent = kzalloc(sizeof(*parent) + size, GFP_KERNEL);
    copy = kmemdup(path, size, GFP_KERNEL);
    rc = parent && copy ? split(parent, copy) : -ENOMEM;
    kfree(copy);
    if (!rc)
        return parent;
    kfree(parent);
    return ERR_PTR(rc);
}

void os_parent_put(struct os_parent *parent) {
    path_put(&parent->path);
    kfree(parent);
}

// The right to write comes first: a file system that is being frozen is waited for without the lock.
void os_parent_lock(struct os_parent *parent) {
    int writable = mnt_want_write(parent->path.mnt);

    compat_lock_folder(parent->path.dentry->d_inode);
    parent->writable = writable;
}

void os_parent_unlock(struct os_parent *parent) {
    int writable = parent->writable;

    compat_unlock_folder(parent->path.dentry->d_inode);
    if (!writable)
        mnt_drop_write(parent->path.mnt);
}

bool os_parent_last_is_normal(const struct os_parent *parent) {
    return parent->length && strcmp(parent->last, ".") && strcmp(parent->last, "..");
}

bool os_parent_last_has_tail(const struct os_parent *parent) {
    return parent->has_tail;
}

struct os_dentry *os_lookup_hash(struct os_parent *parent) {
    struct path found = {.mnt = parent->path.mnt};

    found.dentry = compat_lookup(&parent->path, parent->last, parent->length);
    if (IS_ERR(found.dentry))
        return ERR_CAST(found.dentry);
    mntget(found.mnt);
    return new_dentry(&found);
}

int os_vfs_unlink(struct os_parent *parent, struct os_dentry *dentry) {
    if (!os_dentry_positive(dentry))
        return -ENOENT;
    if (parent->writable)
        return parent->writable;
    return compat_unlink(&parent->path, dentry->path.dentry);
}

int os_vfs_mknod(struct os_parent *parent, struct os_dentry *dentry, uint32_t mode, os_dev_t dev) {
    if (os_dentry_positive(dentry))
        return -EEXIST;
    if (parent->writable)
        return parent->writable;
    return compat_mknod(&parent->path, dentry->path.dentry, mode, dev);
}
