// driver/module/params.cpp: the module's parameters
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/module/params.h"

#include <os_embedded.h>

extern "C" {
OS_MODULE_STATE constinit std::int32_t trak_chr_major = 100;
OS_MODULE_STATE constinit std::int32_t trak_debug = 1;
OS_MODULE_STATE constinit std::int32_t trak_blk_major = 100;
OS_MODULE_STATE constinit std::int32_t trak_max_blk_minor = 255;
}
