// driver/block/kdirtyd.h: the thread that writes dirty flags into bitmap files
// SPDX-License-Identifier: GPL-2.0-only
//
// Locks      req_spin (rank 62) guards the list of requests; bmp_mutex is held around each flag write.
//            The two are never held together.
// Order      requests are served one at a time, oldest first.
// type       1 incremental, 0 differential.
#ifndef TRAK_BLOCK_KDIRTYD_H
#define TRAK_BLOCK_KDIRTYD_H

#include <cstdint>

#include "driver/block/device.h"

int trak_start_kdirtyd();  // 0, -EALREADY or the errno of the thread's start
int trak_stop_kdirtyd();   // 0 or -ESRCH; queued requests are freed unwritten
// Queues a flag write: 0 or -ENOMEM. Context: sleep, no spin lock held.
int trak_sched_write_dirty_flag(trak_filter *filter, std::int32_t type);
// Queued flag writes of the bitmap write nothing any more; bmp_mutex held. 0.
int trak_kill_dirty_requests(trak_filter *filter, std::int32_t type);
// Waits until no request of the filter is queued: 0 or, after `seconds` (>= 1), -ETIMEDOUT.
int trak_yield_to_dirty_requests(trak_filter *filter, int seconds);
// The last step of a filter's destroy: drops what is queued for it and frees the record, at once or,
// when the thread is writing one of its flags at this moment, once that is done. Context: sleep.
void trak_free_after_dirty_requests(trak_device *filter);

#endif
