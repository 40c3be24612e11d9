// tests/vm/contract/2.6.32/compat_contract.h: what the contract suite asks of kernel 2.6.32, by newer names
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_VM_COMPAT_CONTRACT_H
#define TRAK_TESTS_VM_COMPAT_CONTRACT_H

#include <linux/bio.h>
#include <linux/fs.h>
#include <linux/interrupt.h>
#include <linux/kernel.h>
#include <linux/ktime.h>
#include <linux/mm.h>
#include <linux/mman.h>
#include <linux/sched.h>
#include <linux/vmalloc.h>
#include <linux/wait.h>

/* The tasks of a wait queue. */
#define waiters_of(queue) (&(queue)->task_list)
#define READ_ONCE(x) ACCESS_ONCE(x)
#define WRITE_ONCE(x, value) (ACCESS_ONCE(x) = (value))
#define BIO_MAX_VECS BIO_MAX_PAGES
#define TASK_IDLE TASK_INTERRUPTIBLE
#define __state state
#define min3(a, b, c) min(min(a, b), c)
#define strscpy(to, from, size) strlcpy(to, from, size)
#define task_is_running(task) ((task)->state == TASK_RUNNING)
#define SB_KERNMOUNT MS_KERNMOUNT

/* The operation `name` of a file system on a block device, that fills its super block by fill_fn. */
#define CONTRACT_MOUNT(name, fill_fn)                                                              \
    static int name(struct file_system_type *type, int flags, const char *device, void *data,      \
                    struct vfsmount *mount) {                                                      \
        return get_sb_bdev(type, flags, device, data, fill_fn, mount);                             \
    }
#define contract_mount get_sb
#define contract_is_frozen(super) ((super)->s_frozen == SB_FREEZE_TRANS)

static inline struct inode *file_inode(const struct file *file) {
    return file->f_path.dentry->d_inode;
}

static inline void ihold(struct inode *inode) {
    atomic_inc(&inode->i_count);
}

static inline void *memchr_inv(const void *start, int value, size_t size) {
    const unsigned char *p = start;

    for (; size != 0; p++, size--)
        if (*p != (unsigned char)value)
            return (void *)p;
    return NULL;
}

static inline s64 ktime_ms_delta(ktime_t later, ktime_t earlier) {
    return ktime_to_ns(ktime_sub(later, earlier)) / NSEC_PER_MSEC;
}

static inline unsigned long vm_mmap(struct file *file, unsigned long addr, unsigned long length,
                                    unsigned long prot, unsigned long flags, unsigned long offset) {
    unsigned long mapped;

    down_write(&current->mm->mmap_sem);
    mapped = do_mmap(file, addr, length, prot, flags, offset);
    up_write(&current->mm->mmap_sem);
    return mapped;
}

static inline void tasklet_setup(struct tasklet_struct *tasklet,
                                 void (*fn)(struct tasklet_struct *)) {
    tasklet_init(tasklet, (void (*)(unsigned long))fn, (unsigned long)tasklet);
}

static inline void *vzalloc(unsigned long size) {
    return __vmalloc(size, GFP_KERNEL | __GFP_ZERO, PAGE_KERNEL);
}

#endif
