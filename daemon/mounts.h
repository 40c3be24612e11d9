// daemon/mounts.h: what is mounted where
// SPDX-License-Identifier: GPL-2.0-only
//
// Reads the mount table only: a look at a file system that does not answer would wait for ever.
#ifndef TRAKD_MOUNTS_H
#define TRAKD_MOUNTS_H

#include <string>

namespace trakd {

// Readies the mount point: resolves it, holds it against another trakd that starts at the same
// moment, and takes away the mount of a trakd that was killed. 0, or -1 with one line in *why.
[[nodiscard]] int mount_point_take(std::string *mount_point, std::string *why);

}  // namespace trakd

#endif
