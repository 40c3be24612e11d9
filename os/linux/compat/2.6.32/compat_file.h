// os/linux/compat/2.6.32/compat_file.h: files and folders of kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_COMPAT_FILE_H
#define TRAK_OS_LINUX_COMPAT_FILE_H

#include <linux/backing-dev.h>
#include <linux/dcache.h>
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/namei.h>
#include <linux/pagemap.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/uio.h>

#define compat_inode(file) ((file)->f_path.dentry->d_inode)

/* This kernel knows one of the two bits that newer ones have for OS_O_SYNC. A write to the file must not
 * wait for memory that another write would have to set free, through the disk under the file maybe: no
 * page of it is got by doing I/O (compat_fill_cache). */
static inline struct file *compat_open_file(const char *path, int flags, int mode) {
    struct file *file = filp_open(path, flags & ~04000000, mode);

    if (!IS_ERR(file) && S_ISREG(compat_inode(file)->i_mode))
        mapping_set_gfp_mask(file->f_mapping,
                             mapping_gfp_mask(file->f_mapping) & ~(__GFP_IO | __GFP_FS));
    return file;
}

static inline int compat_close_file(struct file *file) {
    return filp_close(file, NULL);
}

/* The pages that a write is about to want. The kernel would get them as the file's mask says, but their
 * places in the cache's tree as for anybody: by writing out what others have made dirty, from deep within the
 * call and through the file systems, maybe to the node that waits for this one. Pages that can't be had are
 * left to the call. */
static inline void compat_fill_cache(struct file *file, loff_t pos, size_t count) {
    struct address_space *mapping = file->f_mapping;
    const pgoff_t end = (pos + count + PAGE_CACHE_SIZE - 1) >> PAGE_CACHE_SHIFT;
    pgoff_t index;

    /* A file system in memory keeps an account of its pages. */
    if (!S_ISREG(compat_inode(file)->i_mode) || !mapping_cap_account_dirty(mapping))
        return;
    for (index = pos >> PAGE_CACHE_SHIFT; index < end; index++) {
        struct page *page = find_get_page(mapping, index);

        if (!page) {
            page = __page_cache_alloc(mapping_gfp_mask(mapping));
            if (!page)
                return;
            if (add_to_page_cache_lru(page, mapping, index, GFP_NOIO) == 0)
                unlock_page(page);
        }
        page_cache_release(page);
    }
}

static inline long compat_read(struct file *file, void *buf, size_t count, loff_t *pos) {
    const mm_segment_t limit = get_fs();
    long rc;

    set_fs(KERNEL_DS);
    rc = vfs_read(file, (char __user *)buf, count, pos);
    set_fs(limit);
    return rc;
}

static inline long compat_write(struct file *file, const void *buf, size_t count, loff_t *pos) {
    const mm_segment_t limit = get_fs();
    long rc;

    compat_fill_cache(file, *pos, count);
    set_fs(KERNEL_DS);
    rc = vfs_write(file, (const char __user *)buf, count, pos);
    set_fs(limit);
    return rc;
}

/* So many of the pages as one call takes; every page of x86-64 has an address. Their list isn't kept on the
 * stack: below this call ext3 looks for blocks and the kernel for memory, the deepest path there is. */
static inline long compat_write_pages(struct file *file, struct page *const *pages, uint32_t count,
                                      loff_t *pos) {
    enum { few_pages = 4, most_pages = 64 };
    const mm_segment_t limit = get_fs();
    struct iovec few[few_pages], *vecs = few;
    uint32_t i;
    long rc;

    count = min_t(uint32_t, count, most_pages);
    if (count > few_pages) {
        vecs = kmalloc(count * sizeof(*vecs), GFP_NOIO | __GFP_NOWARN);
        if (!vecs) {
            vecs = few;
            count = few_pages;
        }
    }
    for (i = 0; i < count; i++) {
        vecs[i].iov_base = (void __user *)page_address(pages[i]);
        vecs[i].iov_len = PAGE_SIZE;
    }
    compat_fill_cache(file, *pos, (size_t)count * PAGE_SIZE);
    set_fs(KERNEL_DS);
    rc = vfs_writev(file, (const struct iovec __user *)vecs, count, pos);
    set_fs(limit);
    if (vecs != few)
        kfree(vecs);
    return rc;
}

static inline int compat_fsync(struct file *file) {
    return vfs_fsync(file, file->f_path.dentry, 0);
}

/* An entry's name at one moment, which a rename doesn't change. */
typedef char *compat_name;

static inline bool compat_take_name(compat_name *name, struct dentry *dentry) {
    char *copy = kmalloc(NAME_MAX + 1, GFP_KERNEL);

    if (copy) {
        spin_lock(&dentry->d_lock);
        snprintf(copy, NAME_MAX + 1, "%s", dentry->d_name.name);
        spin_unlock(&dentry->d_lock);
    }
    *name = copy;
    return copy != NULL;
}

static inline void compat_release_name(compat_name *name) {
    kfree(*name);
}

static inline const char *compat_name_text(const compat_name *name) {
    return *name;
}

static inline void compat_lock_folder(struct inode *folder) {
    mutex_lock_nested(&folder->i_mutex, I_MUTEX_PARENT);
}

static inline void compat_unlock_folder(struct inode *folder) {
    mutex_unlock(&folder->i_mutex);
}

static inline struct dentry *compat_lookup(const struct path *folder, const char *name,
                                           int length) {
    return lookup_one_len(name, folder->dentry, length);
}

static inline int compat_unlink(const struct path *folder, struct dentry *entry) {
    return vfs_unlink(folder->dentry->d_inode, entry);
}

static inline int compat_mknod(const struct path *folder, struct dentry *entry, int mode,
                               dev_t dev) {
    return vfs_mknod(folder->dentry->d_inode, entry, mode, dev);
}

#endif
