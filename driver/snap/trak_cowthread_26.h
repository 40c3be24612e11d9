// driver/snap/trak_cowthread_26.h: kcowd: preserves chunks before writes reach the disk
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_SNAP_TRAK_COWTHREAD_26_H
#define TRAK_SNAP_TRAK_COWTHREAD_26_H

#include <cstdint>

#include "os/bio.h"
#include "os/lock.h"

struct trak_device;

struct trak_cowthread {
    char name[64];
    std::uint32_t stop;
    std::int32_t pid;  // 0: not running
    trak_device *owner;
    os_completion exited;
};

// All sleep. 0, -EINVAL, -EALREADY or the errno of the thread's start.
[[nodiscard]] int trak_cowthread_start(trak_cowthread *thread, const char *name,
                                       trak_device *filter);
// Waits until the filter's queue is empty, then ends the thread. 0 or -EINVAL.
int trak_cowthread_shutdown(trak_cowthread *thread);
// Ends the thread at once; every queued bio ends with -EIO. 0 or -EINVAL.
int trak_cowthread_abort(trak_cowthread *thread);

#endif
