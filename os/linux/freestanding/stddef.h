// os/linux/freestanding/stddef.h: the language's size_t and offsets, for C that may use kernel headers only
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_FREESTANDING_STDDEF_H
#define TRAK_OS_LINUX_FREESTANDING_STDDEF_H

#include <linux/stddef.h>

#endif
