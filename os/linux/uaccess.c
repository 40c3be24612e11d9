// os/linux/uaccess.c: memory of the calling process
// SPDX-License-Identifier: GPL-2.0-only
#include "os/uaccess.h"

#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/uaccess.h>

#include <compat_uaccess.h>

// The kernel refuses, with a warning, to copy more at once.
#define PIECE ((size_t)1 << 30)

bool os_access_ok(enum os_access type, os_uaddr addr, size_t size) {
    return size <= TASK_SIZE_MAX && addr <= TASK_SIZE_MAX - size &&
           compat_access_ok((void __user *)addr, size);
}

size_t os_copy_from_user(void *to, os_uaddr from, size_t size) {
    size_t done = 0;

    while (done < size) {
        size_t piece = min(size - done, PIECE);
        size_t left = copy_from_user(to + done, (void __user *)(from + done), piece);

        done += piece - left;
        if (left)
            break;
    }
    return size - done;
}

size_t os_copy_to_user(os_uaddr to, const void *from, size_t size) {
    size_t done = 0;

    while (done < size) {
        size_t piece = min(size - done, PIECE);
        size_t left = copy_to_user((void __user *)(to + done), from + done, piece);

        done += piece - left;
        if (left)
            break;
    }
    return size - done;
}
