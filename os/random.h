// os/random.h: random bytes
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_RANDOM_H
#define TRAK_OS_RANDOM_H

#include "os/base.h"

OS_BEGIN

void os_get_random_bytes(void *buf, size_t count); /* context: any; always fills */

OS_END

#endif
