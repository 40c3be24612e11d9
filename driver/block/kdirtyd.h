// driver/block/kdirtyd.h: the thread that writes dirty flags into bitmap files
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_BLOCK_KDIRTYD_H
#define TRAK_BLOCK_KDIRTYD_H

#include <cstdint>

#include "driver/block/device.h"

int trak_start_kdirtyd();  // 0, -EALREADY or the errno of the thread's start
int trak_stop_kdirtyd();   // 0 or -ESRCH
// Queues a flag write: 0 or -ENOMEM. Context: sleep, no spin lock held.
int trak_sched_write_dirty_flag(trak_filter *filter, std::uint32_t type);
// Queued flag writes of the bitmap write nothing any more; bmp_mutex held. 0.
int trak_kill_dirty_requests(trak_filter *filter, std::uint32_t type);
// Waits until no request of the filter is queued: 0 or, after `seconds` (>= 1), -ETIMEDOUT.
int trak_yield_to_dirty_requests(trak_filter *filter, int seconds);

#endif
