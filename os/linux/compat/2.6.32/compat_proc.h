// os/linux/compat/2.6.32/compat_proc.h: files under /proc, in kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_PROC_H
#define TRAK_COMPAT_PROC_H

#include <linux/compiler.h>
#include <linux/fs.h>
#include <linux/proc_fs.h>

#define compat_pde_data(file) (PDE((file)->f_path.dentry->d_inode)->data)

/* What was written before a compat_store is seen after the compat_load that finds its value. */
#define compat_load(p)                                                                             \
    ({                                                                                             \
        typeof(*(p)) loaded_ = ACCESS_ONCE(*(p));                                                  \
        smp_mb();                                                                                  \
        loaded_;                                                                                   \
    })
#define compat_store(p, value)                                                                     \
    do {                                                                                           \
        smp_mb();                                                                                  \
        ACCESS_ONCE(*(p)) = (value);                                                               \
    } while (0)

#define COMPAT_PROC_OPERATIONS(name, read_fn, write_fn)                                            \
    static const struct file_operations name = {                                                   \
        .read = read_fn,                                                                           \
        .write = write_fn,                                                                         \
        .llseek = default_llseek,                                                                  \
    }

static inline void compat_proc_remove(struct proc_dir_entry *entry) {
    remove_proc_entry(entry->name, entry->parent);
}

#endif
