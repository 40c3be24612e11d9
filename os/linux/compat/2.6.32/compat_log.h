// os/linux/compat/2.6.32/compat_log.h: the log of kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_LOG_H
#define TRAK_COMPAT_LOG_H

#include <linux/kernel.h>

static inline void compat_vprintk(const char *fmt, va_list *args) {
    vprintk(fmt, *args);
}

#endif
