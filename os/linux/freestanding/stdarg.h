// os/linux/freestanding/stdarg.h: the language's argument lists, for C that may use kernel headers only
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_FREESTANDING_STDARG_H
#define TRAK_OS_LINUX_FREESTANDING_STDARG_H

#include <compat_stdarg.h>

#endif
