// driver/block/orphans.h: nodes that lost their table entry
// SPDX-License-Identifier: GPL-2.0-only
//
// A creation that is refused because its minor is taken empties that minor's table entry. The node there
// becomes an orphan: its disk stays and refuses every request, no command finds it any more, its disk
// under it stays open, and unload takes it down with the others.
//
// Two disks can't have one device number. While an orphan is open its minor therefore counts as taken;
// else its disk goes as soon as another node takes the minor.
// Locks      trak_blkdev_rwlock guards the list.
#ifndef TRAK_BLOCK_ORPHANS_H
#define TRAK_BLOCK_ORPHANS_H

#include <cstdint>

#include "driver/block/device.h"
#include "driver/block/table.h"

// Empties a minor's table entry, whatever node stands there.
void trak_orphan_device(std::uint32_t minor) TRAK_REQUIRES(trak_blkdev_rwlock);
// True when an open orphan has the minor.
[[nodiscard]] bool trak_orphan_blocks(std::uint32_t minor) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// The disk of an orphan that has this minor and isn't open, its folder of the status tree gone; null when
// there is none (any more). The caller takes the disk away.
[[nodiscard]] os_disk *trak_hide_orphan(std::uint32_t minor) TRAK_REQUIRES(trak_blkdev_rwlock);
// The orphan at this address, or null.
[[nodiscard]] trak_device *trak_find_orphan(const void *record)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// The orphan after this one, the first one after null; null at the end.
[[nodiscard]] trak_device *trak_next_orphan(const trak_device *dev)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);

#endif
