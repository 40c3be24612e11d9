// driver/control/char.h: the control device
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_CONTROL_CHAR_H
#define TRAK_CONTROL_CHAR_H

#include <cstddef>
#include <cstdint>

#include "os/uaccess.h"

// Registers the device under trak_chr_major (0: a free major, written back): 0 or the registration's
// negative errno. Context: sleep.
int trak_char_init();
// Unregisters it if it is registered: 0.
int trak_char_destroy();

// The device's operations, each in the calling process's context. Open and release keep nothing, a
// read is at the end of the file, a write takes nothing: all 0.
int trak_char_open(void *inode, void *file);
int trak_char_release(void *inode, void *file);
long trak_char_read(void *file, os_uaddr buf, std::size_t count, std::int64_t *pos);
long trak_char_write(void *file, os_uaddr buf, std::size_t count, std::int64_t *pos);
// One command: arg is the address of its record in the caller's memory. 0, or -ENOTTY (unknown
// command), -EFAULT (the record can't be moved, memory for it included), -EINVAL (no such node), or
// the handler's own result. The record goes back to the caller only with 0.
int trak_char_ioctl(void *inode, void *file, std::uint32_t cmd, unsigned long arg);

#endif
