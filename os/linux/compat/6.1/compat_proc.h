// os/linux/compat/6.1/compat_proc.h: files under /proc, in kernel 6.1
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_PROC_H
#define TRAK_COMPAT_PROC_H

#include <linux/fs.h>
#include <linux/proc_fs.h>

#define compat_pde_data(file) pde_data(file_inode(file))

/* What was written before a compat_store is seen after the compat_load that finds its value. */
#define compat_load(p) smp_load_acquire(p)
#define compat_store(p, value) smp_store_release(p, value)

#define COMPAT_PROC_OPERATIONS(name, read_fn, write_fn)                                            \
    static const struct proc_ops name = {                                                          \
        .proc_read = read_fn,                                                                      \
        .proc_write = write_fn,                                                                    \
        .proc_lseek = default_llseek,                                                              \
    }

static inline void compat_proc_remove(struct proc_dir_entry *entry) {
    proc_remove(entry);
}

#endif
