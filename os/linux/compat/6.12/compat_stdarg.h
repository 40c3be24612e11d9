// os/linux/compat/6.12/compat_stdarg.h: argument lists, in kernel 6.12
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_STDARG_H
#define TRAK_COMPAT_STDARG_H

#include <linux/stdarg.h>

#endif
