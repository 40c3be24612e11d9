// os/linux/compat/2.6.32/compat_memory.h: memory of kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_MEMORY_H
#define TRAK_COMPAT_MEMORY_H

#include <linux/vmalloc.h>

static inline void *compat_vmalloc(size_t size, gfp_t gfp) {
    return __vmalloc(size, gfp, PAGE_KERNEL);
}

#endif
