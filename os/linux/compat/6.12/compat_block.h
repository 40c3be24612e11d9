// os/linux/compat/6.12/compat_block.h: what a queue is in kernel 6.12
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_COMPAT_BLOCK_H
#define TRAK_COMPAT_BLOCK_H

#include "os/linux/disk_queue.h"

#endif
