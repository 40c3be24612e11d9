// driver/block/trak_aio_26.h: clones of the requests that a filter sends to its disk
// SPDX-License-Identifier: GPL-2.0-only
//
// Keeps every clone in flight in an index by 4 KiB block, so that requests that overlap reach the disk
// in order; a clone's end completes its parent exactly once.
// Locks      aio_spin (rank 66, irqsave), one for all trackers; never held across the block layer.
// Units      block = 4096 bytes = 8 sectors.
// Null arguments are bugs.
#ifndef TRAK_BLOCK_TRAK_AIO_26_H
#define TRAK_BLOCK_TRAK_AIO_26_H

#include <cstdint>

#include "driver/utils/list.h"
#include "os/bio.h"
#include "os/memory.h"

struct aio_tracker {
    trak_list items;  // clones in flight, oldest first
    trak_list *hash;  // 4096 buckets of block records; null: no tracker
};

// 0 or -ENOMEM. Context: sleep; one call of init or destroy at a time (the node table held for writing).
[[nodiscard]] int trak_aio_init(aio_tracker *tracker);
// A clone that the caller retargets and submits, or drops with os_bio_put. Null: no memory, or (wait ==
// 0) an overlapping request is in flight. wait != 0 waits for that one and may only be used where
// sleeping is allowed.
[[nodiscard]] os_bio *trak_aio_clone(aio_tracker *tracker, os_bio *request, std::uint32_t wait,
                                     os_gfp gfp);
// Installed on every clone, never called directly. Context: any.
// True while the request overlaps one in flight. The disks in question are told to start what they hold
// back. Context: sleep.
[[nodiscard]] bool trak_aio_overlaps(aio_tracker *tracker, const os_bio *request);
void trak_aio_end_io(os_bio *clone, int error);
void trak_aio_destructor(os_bio *clone);
// wait == 0 ends every parent in flight with -EIO and lets the clones end by themselves; else waits for
// all clones to go. Always 0. Context: sleep.
int trak_aio_destroy(aio_tracker *tracker, std::uint32_t wait);

#endif
