// driver/snap/routing.h: requests that involve snapshots
// SPDX-License-Identifier: GPL-2.0-only
//
// Both are called by trak_make_request with the node table held for reading; the second with the
// filter's snap_rwlock held for reading too, and change bits marked. 0: the bio was handed on. A negative
// errno: the caller still owns the bio and ends it.
#ifndef TRAK_SNAP_ROUTING_H
#define TRAK_SNAP_ROUTING_H

#include "driver/block/device.h"
#include "driver/block/table.h"
#include "os/bio.h"
#include "os/memory.h"

[[nodiscard]] int trak_route_snap_request(trak_device *snap, os_bio *bio, os_gfp gfp)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
[[nodiscard]] int trak_route_filter_request(trak_device *filter, os_bio *bio, os_gfp gfp)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);

#endif
