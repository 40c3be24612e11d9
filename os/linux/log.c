// os/linux/log.c: the kernel's log
// SPDX-License-Identifier: GPL-2.0-only
#include "os/log.h"

#include <linux/kernel.h>

#include <compat_log.h>

void os_printk(const char *fmt, ...) {
    va_list args;

    va_start(args, fmt);
    compat_vprintk(fmt, &args);
    va_end(args);
}

int os_vsnprintf(char *buf, size_t size, const char *fmt, va_list args) {
    return vsnprintf(buf, size, fmt, args);
}

int os_snprintf(char *buf, size_t size, const char *fmt, ...) {
    va_list args;
    int length;

    va_start(args, fmt);
    length = vsnprintf(buf, size, fmt, args);
    va_end(args);
    return length;
}
