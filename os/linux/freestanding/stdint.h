// os/linux/freestanding/stdint.h: the language's integer types, for C that may use kernel headers only
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_FREESTANDING_STDINT_H
#define TRAK_OS_LINUX_FREESTANDING_STDINT_H

#include <linux/types.h>

typedef long intptr_t; /* not every kernel has it */

#endif
