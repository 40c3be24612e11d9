// os/linux/freestanding/stdbool.h: the language's truth values, for C that may use kernel headers only
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_FREESTANDING_STDBOOL_H
#define TRAK_OS_LINUX_FREESTANDING_STDBOOL_H

#include <linux/types.h>

#endif
