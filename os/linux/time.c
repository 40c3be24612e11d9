// os/linux/time.c: ticks
// SPDX-License-Identifier: GPL-2.0-only
#include "os/time.h"

#include <linux/jiffies.h>
#include <linux/math64.h>

uint64_t os_jiffies(void) {
    return div_u64(get_jiffies_64() * 1000, HZ);
}
