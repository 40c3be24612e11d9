// os/linux/folder.h: folders and their entries, in kernels whose mounts have ids of their own
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_FOLDER_H
#define TRAK_OS_LINUX_FOLDER_H

#include <linux/dcache.h>
#include <linux/fs.h>
#include <linux/mount.h>
#include <linux/namei.h>

/* An entry's name at one moment, which a rename doesn't change. */
typedef struct name_snapshot compat_name;

static inline bool compat_take_name(compat_name *name, struct dentry *dentry) {
    take_dentry_name_snapshot(name, dentry);
    return true;
}

static inline void compat_release_name(compat_name *name) {
    release_dentry_name_snapshot(name);
}

static inline const char *compat_name_text(const compat_name *name) {
    return name->name.name;
}

static inline void compat_lock_folder(struct inode *folder) {
    inode_lock_nested(folder, I_MUTEX_PARENT);
}

static inline void compat_unlock_folder(struct inode *folder) {
    inode_unlock(folder);
}

static inline struct dentry *compat_lookup(const struct path *folder, const char *name,
                                           int length) {
    return lookup_one(compat_mount_ids(folder->mnt), name, folder->dentry, length);
}

static inline int compat_unlink(const struct path *folder, struct dentry *entry) {
    return vfs_unlink(compat_mount_ids(folder->mnt), d_inode(folder->dentry), entry, NULL);
}

static inline int compat_mknod(const struct path *folder, struct dentry *entry, umode_t mode,
                               dev_t dev) {
    return vfs_mknod(compat_mount_ids(folder->mnt), d_inode(folder->dentry), entry, mode, dev);
}

#endif
