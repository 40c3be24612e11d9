// os/linux/compat/6.12/compat_log.h: the log of kernel 6.12
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_LOG_H
#define TRAK_COMPAT_LOG_H

#include <linux/printk.h>

/* The level stands in the text as "<3>"; this kernel takes it in another form. */
static inline void compat_vprintk(const char *fmt, va_list *args) {
    struct va_format text = {.fmt = fmt, .va = args};
    char level = KERN_DEFAULT[1];

    if (fmt[0] == '<' && fmt[1] >= '0' && fmt[1] <= '7' && fmt[2] == '>') {
        level = fmt[1];
        text.fmt = fmt + 3;
    }
    printk("%c%c%pV", KERN_SOH_ASCII, level, &text);
}

#endif
