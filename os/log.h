// os/log.h: the kernel's log
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LOG_H
#define TRAK_OS_LOG_H

#include <stdarg.h>

#include "os/base.h"

OS_BEGIN

/* One record of the kernel log; the text begins with its level, "<3>" or "<6>", and ends with a
 * newline. Context: any. */
void os_printk(const char *fmt, ...) OS_PRINTF(1, 2);

/* The kernel's vsnprintf: at most size bytes with the NUL; returns the length that the whole text
 * would have had. Conversions: d i u x X o c s p % with l, ll, z, widths, zero padding and
 * precision; %p prints an address in some form. Context: any. */
int os_vsnprintf(char *buf, size_t size, const char *fmt, va_list args)
    __attribute__((format(printf, 3, 0)));
int os_snprintf(char *buf, size_t size, const char *fmt, ...) OS_PRINTF(3, 4);

OS_END

#endif
