// os/linux/embed/os_embedded.h: the kernel's types as the driver embeds them: bytes of their size
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_EMBED_OS_EMBEDDED_H
#define TRAK_OS_LINUX_EMBED_OS_EMBEDDED_H

#include <os_probed.h> /* made by the module's build, for the kernel that it builds for */

#define OS_MODULE_STATE

#define OS_LINUX_BYTES(name)                                                                       \
    { unsigned char bytes[OS_SIZE_OF_##name]; }                                                    \
    __attribute__((aligned(OS_ALIGN_OF_##name)))

struct os_spinlock OS_LINUX_BYTES(SPINLOCK);
struct os_semaphore OS_LINUX_BYTES(SEMAPHORE);
struct os_completion OS_LINUX_BYTES(COMPLETION);
struct os_wait_queue_head OS_LINUX_BYTES(WAIT_QUEUE_HEAD);
struct os_wait_entry OS_LINUX_BYTES(WAIT_ENTRY);

#undef OS_LINUX_BYTES

#endif
