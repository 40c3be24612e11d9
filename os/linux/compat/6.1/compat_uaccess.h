// os/linux/compat/6.1/compat_uaccess.h: memory of processes, in kernel 6.1
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_UACCESS_H
#define TRAK_COMPAT_UACCESS_H

#include <linux/uaccess.h>

#define compat_access_ok(addr, size) access_ok(addr, size)

#endif
