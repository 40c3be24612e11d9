// driver/snap/snap_list.h: walks over the snaps of a filter
// SPDX-License-Identifier: GPL-2.0-only
//
// A filter's list is in the order of the starts, oldest first. What a snap has not preserved itself it
// finds in the first newer one that has, and below them all on the disk; so a write needs to be
// preserved in the newest snap only, and a snap needs every newer one that was started after it.
//
// Every function is called with the list held still: snap_rwlock of the filter held, its dev_mutex
// with trak_blkdev_rwlock, or the latter held for writing.
#ifndef TRAK_SNAP_SNAP_LIST_H
#define TRAK_SNAP_SNAP_LIST_H

#include <cstdint>

#include "driver/block/device.h"

// The neighbour in the filter's list, or null at its end.
[[nodiscard]] trak_device *trak_snap_newer(trak_device *snap);
[[nodiscard]] trak_device *trak_snap_older(trak_device *snap);
[[nodiscard]] trak_device *trak_snap_newest(trak_device *filter);
// The newest one that is started and valid, or null.
[[nodiscard]] trak_device *trak_snap_newest_taking_part(trak_device *filter);

// The first snap from this one toward newer ones that is started and valid and whose COW bitmap does
// not answer 0 for the chunk, its answer in *bit; or null, with *bit 0. Sleeps.
[[nodiscard]] trak_device *trak_snap_holder_of(trak_device *snap, std::uint32_t chunk, int *bit);

// snap_valid, in one order for everybody: who sees a snap given up sees those given up before it too.
[[nodiscard]] bool trak_snap_is_valid(const trak_device *snap);
void trak_snap_set_valid(trak_device *snap, std::uint32_t valid);

#endif
