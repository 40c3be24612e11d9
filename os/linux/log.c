// os/linux/log.c: the kernel's log
// SPDX-License-Identifier: GPL-2.0-only
#include "os/log.h"

#include <linux/kernel.h>
#include <linux/printk.h>

// The level stands in the text as "<3>"; today's kernels take it in another form.
void os_printk(const char *fmt, ...) {
    struct va_format text = {.fmt = fmt};
    char level = KERN_DEFAULT[1];
    va_list args;

    if (fmt[0] == '<' && fmt[1] >= '0' && fmt[1] <= '7' && fmt[2] == '>') {
        level = fmt[1];
        text.fmt = fmt + 3;
    }
    va_start(args, fmt);
    text.va = &args;
    printk("%c%c%pV", KERN_SOH_ASCII, level, &text);
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
