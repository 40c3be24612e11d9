// os/linux/random.c: random bytes
// SPDX-License-Identifier: GPL-2.0-only
#include "os/random.h"

#include <linux/random.h>

void os_get_random_bytes(void *buf, size_t count) {
    get_random_bytes(buf, count);
}
