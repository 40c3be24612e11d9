// os/time.h: ticks
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_TIME_H
#define TRAK_OS_TIME_H

#include "os/base.h"

OS_BEGIN

/* Ticks since some start, 1000 a second on every platform whatever the kernel's HZ, never going
 * back. Context: any. */
uint64_t os_jiffies(void);

OS_END

#endif
