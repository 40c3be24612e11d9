// os/linux/compat/6.12/compat_memory.h: memory, of kernels 6.1 and 6.12, which are alike
// SPDX-License-Identifier: GPL-2.0-only
#include "os/linux/compat/6.1/compat_memory.h"
