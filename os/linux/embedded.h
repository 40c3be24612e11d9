// os/linux/embedded.h: from the driver's bytes to the kernel's type
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_EMBEDDED_H
#define TRAK_OS_LINUX_EMBEDDED_H

#include <os_embedded.h>

/* Defines real_NAME(p): the kernel's object that the driver's struct NAME holds. The build ends when
 * the probed size or alignment isn't the type's. */
#define OS_LINUX_EMBEDS(name, type)                                                                \
    _Static_assert(sizeof(struct name) == sizeof(type), "probed size");                            \
    _Static_assert(__alignof__(struct name) == __alignof__(type), "probed alignment");             \
    static inline type *real_##name(struct name *embedded) {                                       \
        return (type *)embedded;                                                                   \
    }

#endif
