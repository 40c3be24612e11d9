// os/linux/chardev.c: the control device
// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel passes each call the open file, whose operations lie inside the registration that they
// belong to. The module stays while a file of it is open (.owner), and so does the registration.
#include "os/chardev.h"

#include <linux/fs.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include <compat_file.h>

enum { most_majors = 512 };

struct registration {
    struct file_operations calls;
    const struct os_file_operations *fops;
    uint32_t major;
    struct registration *next;
};

static struct registration *registrations;
static DEFINE_MUTEX(registrations_lock);

static const struct os_file_operations *fops_of(struct file *file) {
    return container_of(file->f_op, struct registration, calls)->fops;
}

static ssize_t call_read(struct file *file, char __user *buf, size_t count, loff_t *pos) {
    return fops_of(file)->read ? fops_of(file)->read(file, (os_uaddr)buf, count, pos) : -EINVAL;
}

static ssize_t call_write(struct file *file, const char __user *buf, size_t count, loff_t *pos) {
    return fops_of(file)->write ? fops_of(file)->write(file, (os_uaddr)buf, count, pos) : -EINVAL;
}

static long call_ioctl(struct file *file, unsigned int cmd, unsigned long arg) {
    const struct os_file_operations *fops = fops_of(file);

    return fops->ioctl ? fops->ioctl(compat_inode(file), file, cmd, arg) : -ENOTTY;
}

static int call_open(struct inode *inode, struct file *file) {
    return fops_of(file)->open ? fops_of(file)->open(inode, file) : 0;
}

static int call_release(struct inode *inode, struct file *file) {
    return fops_of(file)->release ? fops_of(file)->release(inode, file) : 0;
}

/* The control device has one entry; a program of 32 bits gets ENOTTY, which not every kernel says itself. */
static long refuse_32(struct file *file, unsigned int cmd, unsigned long arg) {
    return -ENOTTY;
}

static const struct file_operations calls = {
    .owner = THIS_MODULE,
    .llseek = default_llseek,
    .read = call_read,
    .write = call_write,
    .unlocked_ioctl = call_ioctl,
    .compat_ioctl = refuse_32,
    .open = call_open,
    .release = call_release,
};

int os_register_chrdev(uint32_t major, const char *name, const struct os_file_operations *fops) {
    struct registration *registration;
    int rc;

    if (major >= most_majors) /* not every kernel says so itself */
        return -EINVAL;
    registration = kmalloc(sizeof(*registration), GFP_KERNEL);
    if (!registration)
        return -ENOMEM;
    registration->calls = calls;
    registration->fops = fops;
    rc = register_chrdev(major, name, &registration->calls);
    if (rc < 0) {
        kfree(registration);
        return rc;
    }
    registration->major = major ? major : rc;
    mutex_lock(&registrations_lock);
    registration->next = registrations;
    registrations = registration;
    mutex_unlock(&registrations_lock);
    return rc;
}

void os_unregister_chrdev(uint32_t major, const char *name) {
    struct registration **at, *found;

    mutex_lock(&registrations_lock);
    for (at = &registrations; *at && (*at)->major != major; at = &(*at)->next)
        ;
    found = *at;
    if (found)
        *at = found->next;
    mutex_unlock(&registrations_lock);
    if (!found)
        return;
    unregister_chrdev(major, name);
    kfree(found);
}
