// daemon/fuse_api.h: the low-level interface of libfuse, in the version that is asked for
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAKD_FUSE_API_H
#define TRAKD_FUSE_API_H

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>

#endif
