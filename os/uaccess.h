// os/uaccess.h: memory of the calling process
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_UACCESS_H
#define TRAK_OS_UACCESS_H

#include "os/base.h"

OS_BEGIN

/* An address in the process that issued the command (not in the driver's own memory). */
typedef uint64_t os_uaddr;

enum os_access { OS_VERIFY_READ = 0, OS_VERIFY_WRITE = 1 };

/* True when [addr, addr + size) lies wholly below the task's address limit, without wrap-around.
 * Says nothing about mapped pages. Context: any. */
bool os_access_ok(enum os_access type, os_uaddr addr, size_t size);

/* Number of bytes that could NOT be copied; 0 is success. Context: sleep. */
size_t os_copy_from_user(void *to, os_uaddr from, size_t size) OS_MUST_CHECK;
size_t os_copy_to_user(os_uaddr to, const void *from, size_t size) OS_MUST_CHECK;

OS_END

#endif
