// os/linux/base.c: what ends a task whose invariant is broken
// SPDX-License-Identifier: GPL-2.0-only
#include "os/base.h"

#include <linux/bug.h>
#include <linux/kernel.h>

void os_bug(const char *file, int line, const char *condition) {
    pr_crit("trak: %s:%d: %s\n", file, line, condition);
    BUG();
}
