// driver/control/char.h: the control device
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_CONTROL_CHAR_H
#define TRAK_CONTROL_CHAR_H

#include <cstdint>

int trak_char_init();     // 0 or the registration's negative errno
int trak_char_destroy();  // 0
// One command of the calling process: 0, a negative errno, or the handler's own result.
int trak_char_ioctl(void *inode, void *file, std::uint32_t cmd, unsigned long arg);

#endif
