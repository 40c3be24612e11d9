// os/linux/compat/2.6.32/compat_stdarg.h: argument lists, in kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
//
// This kernel takes them from the compiler's own header, which is not searched for here.
#ifndef TRAK_COMPAT_STDARG_H
#define TRAK_COMPAT_STDARG_H

typedef __builtin_va_list va_list;
#define va_start(args, last) __builtin_va_start(args, last)
#define va_end(args) __builtin_va_end(args)
#define va_arg(args, type) __builtin_va_arg(args, type)
#define va_copy(to, from) __builtin_va_copy(to, from)

#endif
