// driver/snap/trak_cowthread_26.h: kcowd: preserves chunks before writes reach the disk
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_SNAP_TRAK_COWTHREAD_26_H
#define TRAK_SNAP_TRAK_COWTHREAD_26_H

#include <cstdint>

#include "driver/utils/atomic.h"
#include "os/bio.h"
#include "os/lock.h"

struct trak_device;

struct trak_cowthread {
    char name[64];
    std::uint32_t stop;
    std::int32_t pid;  // 0: not running
    trak_device *owner;
    os_completion exited;
    os_completion ready;    // signalled once the working set is there, or could not be had:
    std::uint32_t serving;  // 1: it is there
    std::uint32_t failed;   // 1: it is not; the thread ends by itself
};

// True while the thread serves its queue. With the filter's snap_rwlock held it stays true.
[[nodiscard]] inline bool trak_cowthread_running(const trak_cowthread *thread) {
    return trak_read_once(thread->serving) != 0 && trak_read_once(thread->stop) == 0;
}

// All sleep, and are called one at a time for a filter (dev_mutex) with no other lock of rank 40 or
// above. 0, -EINVAL, -EALREADY or the errno of the thread's start.
[[nodiscard]] int trak_cowthread_start(trak_cowthread *thread, const char *name,
                                       trak_device *filter);
// Waits until a started thread has its working set: 0, or -ENOMEM where it could not be had.
[[nodiscard]] int trak_cowthread_wait_ready(trak_cowthread *thread);
// Waits until the filter's queue is empty, then ends the thread. 0 or -EINVAL.
int trak_cowthread_shutdown(trak_cowthread *thread);
// Ends the thread at once; every queued bio ends with -EIO. 0 or -EINVAL.
int trak_cowthread_abort(trak_cowthread *thread);

#endif
