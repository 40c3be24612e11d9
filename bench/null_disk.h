// bench/null_disk.h: a disk that ends every request at once
// SPDX-License-Identifier: GPL-2.0-only
//
// What stands above it is all that is measured. It is a block device of another driver in the same
// platform, with a special file of its own, so that a filter node takes it like any disk.
#ifndef TRAK_BENCH_NULL_DISK_H
#define TRAK_BENCH_NULL_DISK_H

#include <cstdint>

#include "os/bdev.h"

namespace bench {

// The special file; there is one disk.
inline constexpr char kNullDisk[] = "/dev/trak/null";

// Makes the disk with so many bytes. Ends the program when that fails.
os_dev_t null_disk_make(std::uint64_t size);
void null_disk_remove();

}  // namespace bench

#endif
