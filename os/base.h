// os/base.h: words that every contract of the seam uses
// SPDX-License-Identifier: GPL-2.0-only
//
// The seam is what the driver needs from a kernel: one small header per concept. A platform
// (os/sim, os/user, os/linux) defines every function that these headers declare; which platform
// serves is chosen by linking, and the sizes of embedded types by include path (os_embedded.h).
//
// Context words used in the contracts:
//   any      callable everywhere, interrupt context included
//   atomic   callable in process context and under a spin lock, never in interrupt context
//   sleep    process context without a spin lock held; the call may sleep
//
// Every mutable variable of the driver that is not on a stack or in allocated memory is declared
// with OS_MODULE_STATE (os_embedded.h): the simulator puts these into one section, so that a
// simulated reboot starts the module afresh; elsewhere the word is empty.
#ifndef TRAK_OS_BASE_H
#define TRAK_OS_BASE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define OS_BEGIN extern "C" {
#define OS_END }
#else
#define OS_BEGIN
#define OS_END
#endif

#define OS_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#define OS_MUST_CHECK __attribute__((warn_unused_result))

/* Linux error numbers, for a driver that has no <errno.h>. */
#ifndef EPERM
#define EPERM 1
#define ENOENT 2
#define ESRCH 3
#define EINTR 4
#define EIO 5
#define ENXIO 6
#define EAGAIN 11
#define ENOMEM 12
#define EACCES 13
#define EFAULT 14
#define EBUSY 16
#define EEXIST 17
#define ENODEV 19
#define ENOTDIR 20
#define EISDIR 21
#define EINVAL 22
#define ENOTTY 25
#define EFBIG 27
#define ENOSPC 28
#define EROFS 30
#define EOPNOTSUPP 95
#define ETIMEDOUT 110
#define EALREADY 114
#endif

enum {
    OS_SECTOR_SIZE = 512,
    OS_SECTOR_SHIFT = 9,
    OS_PAGE_SIZE = 4096, /* the driver's pages; a kernel with larger ones is refused by its build */
};

/* A failed pointer carries its negative errno, as the kernel's ERR_PTR does. */
static inline bool os_is_err(const void *p) {
    return (uintptr_t)p >= (uintptr_t)-4095;
}
static inline int os_ptr_err(const void *p) {
    return (int)(intptr_t)p;
}
static inline void *os_err_ptr(int err) {
    return (void *)(intptr_t)err;
}

OS_BEGIN
/* A broken invariant that only a programming error can cause. Context: any. Does not return, but isn't
 * declared so: a kernel's check of its objects looks for an instruction at which the code ends. */
void os_bug(const char *file, int line, const char *condition);
OS_END

#define OS_BUG_ON(condition)                                                                       \
    do {                                                                                           \
        if (__builtin_expect(!!(condition), 0)) {                                                  \
            os_bug(__FILE__, __LINE__, #condition);                                                \
            __builtin_trap();                                                                      \
        }                                                                                          \
    } while (0)

#endif
