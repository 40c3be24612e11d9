// os/linux/gfp.h: how an allocation may wait, as the kernel spells it
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_GFP_H
#define TRAK_OS_LINUX_GFP_H

#include <linux/gfp.h>

#include "os/memory.h"

static inline gfp_t os_linux_gfp(os_gfp gfp) {
    gfp_t real = gfp == OS_GFP_KERNEL ? GFP_KERNEL : gfp == OS_GFP_NOIO ? GFP_NOIO : GFP_ATOMIC;

    return real | __GFP_NOWARN;
}

#endif
