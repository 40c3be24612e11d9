// os/linux/proc.c: small text files under /proc, with the classic callbacks
// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel keeps its tree to itself, so the driver's part of it is kept here a second time: who is
// whose parent and in which order children were made. The lock guards that; callbacks run without it.
#include "os/proc.h"

#include <linux/fs.h>
#include <linux/list.h>
#include <linux/mm.h>
#include <linux/mutex.h>
#include <linux/proc_fs.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include <compat_proc.h>

struct os_proc_entry {
    struct proc_dir_entry *real;
    struct os_proc_entry *parent;
    struct list_head children; /* in the order of making */
    struct list_head sibling;
    os_proc_read_fn read; /* set after the data that it is called with */
    os_proc_write_fn write;
    void *data;
    char name[];
};

static LIST_HEAD(top); /* the entries without a parent */
static DEFINE_MUTEX(tree_lock);

// One call of the classic callback for what is asked of the text from *pos on: the number of bytes put
// to buf, 0 at the end. Where the callback leaves *start alone its page begins with byte 0 of the text;
// a *start inside the page is where byte *pos lies; a smaller number is how far the position advances.
static ssize_t read_piece(struct os_proc_entry *entry, os_proc_read_fn read, char *page,
                          char __user *buf, size_t count, loff_t *pos, int *eof) {
    char *start = NULL;
    const char *from;
    int n = read(page, &start, *pos, min_t(size_t, count, PAGE_SIZE), eof, entry->data);

    if (n <= 0)
        return n;
    from = start && start >= page ? start : page;
    if (from > page + PAGE_SIZE || n > page + PAGE_SIZE - from)
        return -EIO; /* beyond its page */
    if (!start) {
        if (n <= *pos)
            return 0;
        n -= *pos;
        from += *pos;
    }
    n = min_t(size_t, n, count);
    if (copy_to_user(buf, from, n))
        return -EFAULT;
    *pos += start && start < page ? (unsigned long)start : n;
    return n;
}

static ssize_t proc_read(struct file *file, char __user *buf, size_t count, loff_t *pos) {
    struct os_proc_entry *entry = compat_pde_data(file);
    os_proc_read_fn read = compat_load(&entry->read);
    ssize_t got = 0, n = 0;
    int eof = 0;
    char *page;

    if (!read || *pos > INT_MAX)
        return 0;
    page = (char *)get_zeroed_page(GFP_KERNEL);
    if (!page)
        return -ENOMEM;
    while (got < count && !eof) {
        n = read_piece(entry, read, page, buf + got, count - got, pos, &eof);
        if (n <= 0)
            break;
        got += n;
    }
    free_page((unsigned long)page);
    return got ? got : n;
}

static ssize_t proc_write(struct file *file, const char __user *buf, size_t count, loff_t *pos) {
    struct os_proc_entry *entry = compat_pde_data(file);
    os_proc_write_fn write = compat_load(&entry->write);

    return write ? write(file, (os_uaddr)buf, count, entry->data) : -EIO;
}

COMPAT_PROC_OPERATIONS(calls, proc_read, proc_write);

static struct list_head *children_of(struct os_proc_entry *parent) {
    return parent ? &parent->children : &top;
}

// The kernel would warn of a second entry of the same name.
static bool is_taken(const char *name, struct os_proc_entry *parent) {
    struct os_proc_entry *entry;

    list_for_each_entry(entry, children_of(parent), sibling) {
        if (!strcmp(entry->name, name))
            return true;
    }
    return false;
}

static struct proc_dir_entry *make_real(struct os_proc_entry *entry, uint32_t mode) {
    struct proc_dir_entry *parent = entry->parent ? entry->parent->real : NULL;

    if (S_ISDIR(mode))
        return proc_mkdir(entry->name, parent);
    return proc_create_data(entry->name, mode, parent, &calls, entry);
}

static struct os_proc_entry *make(const char *name, uint32_t mode, struct os_proc_entry *parent) {
    size_t size = strlen(name) + 1;
    struct os_proc_entry *entry = kzalloc(sizeof(*entry) + size, GFP_KERNEL);

    if (!entry)
        return NULL;
    memcpy(entry->name, name, size);
    INIT_LIST_HEAD(&entry->children);
    entry->parent = parent;
    mutex_lock(&tree_lock);
    if (!is_taken(name, parent))
        entry->real = make_real(entry, mode);
    if (entry->real)
        list_add_tail(&entry->sibling, children_of(parent));
    mutex_unlock(&tree_lock);
    if (entry->real)
        return entry;
    kfree(entry);
    return NULL;
}

struct os_proc_entry *os_proc_mkdir(const char *name, struct os_proc_entry *parent) {
    return make(name, S_IFDIR | 0555, parent);
}

struct os_proc_entry *os_create_proc_entry(const char *name, uint32_t mode,
                                           struct os_proc_entry *parent) {
    return make(name, S_IFREG | (mode & 0777), parent);
}

void os_proc_set_ops(struct os_proc_entry *entry, os_proc_read_fn read, os_proc_write_fn write,
                     void *data) {
    entry->data = data;
    compat_store(&entry->write, write);
    compat_store(&entry->read, read);
}

const char *os_proc_name(const struct os_proc_entry *entry) {
    return entry->name;
}

struct os_proc_entry *os_proc_parent(const struct os_proc_entry *entry) {
    return entry->parent;
}

struct os_proc_entry *os_proc_first_child(const struct os_proc_entry *entry) {
    struct os_proc_entry *child = NULL;

    mutex_lock(&tree_lock);
    if (!list_empty(&entry->children))
        child = list_entry(entry->children.next, struct os_proc_entry, sibling);
    mutex_unlock(&tree_lock);
    return child;
}

struct os_proc_entry *os_proc_next(const struct os_proc_entry *entry) {
    struct os_proc_entry *next = NULL;

    mutex_lock(&tree_lock);
    if (!list_is_last(&entry->sibling, children_of(entry->parent)))
        next = list_entry(entry->sibling.next, struct os_proc_entry, sibling);
    mutex_unlock(&tree_lock);
    return next;
}

void os_remove_proc_entry(struct os_proc_entry *entry) {
    mutex_lock(&tree_lock);
    list_del(&entry->sibling);
    mutex_unlock(&tree_lock);
    compat_proc_remove(entry->real); /* waits for callbacks that run */
    kfree(entry);
}
