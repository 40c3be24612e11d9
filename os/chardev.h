// os/chardev.h: the control device
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_CHARDEV_H
#define TRAK_OS_CHARDEV_H

#include "os/base.h"
#include "os/uaccess.h"

OS_BEGIN

/* Operations of a character device, each in the calling process's context. The platform keeps the
 * module in memory while the device is open. */
struct os_file_operations {
    long (*read)(void *file, os_uaddr buf, size_t count, int64_t *pos);
    long (*write)(void *file, os_uaddr buf, size_t count, int64_t *pos);
    int (*ioctl)(void *inode, void *file, uint32_t cmd, unsigned long arg);
    int (*open)(void *inode, void *file);
    int (*release)(void *inode, void *file);
};

/* Registers 256 minors from 0. Major 0 asks for a free one, which is returned; else 0; negative
 * errno on failure. Context: sleep. */
int os_register_chrdev(uint32_t major, const char *name,
                       const struct os_file_operations *fops) OS_MUST_CHECK;
void os_unregister_chrdev(uint32_t major, const char *name);

OS_END

#endif
