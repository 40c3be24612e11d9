// os/linux/compat/6.1/compat_memory.h: memory of kernel 6.1
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_MEMORY_H
#define TRAK_COMPAT_MEMORY_H

#include <linux/vmalloc.h>

static inline void *compat_vmalloc(size_t size, gfp_t gfp) {
    return __vmalloc(size, gfp);
}

static inline void compat_vfree(void *p) {
    vfree(p);
}

#endif
