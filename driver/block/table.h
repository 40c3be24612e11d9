// driver/block/table.h: the node table
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_BLOCK_TABLE_H
#define TRAK_BLOCK_TABLE_H

#include <cstdint>

#include "driver/block/device.h"
#include "driver/block/locks.h"

// trak_max_blk_minor + 1 entries while the block side is up, else null. Entries change only under
// trak_blkdev_rwlock held for writing.
extern trak_device **trak_blkdev_arr;
extern zurwlock trak_blkdev_rwlock;
// Creations and deletions of nodes, one at a time: which minors are taken stands still while it is held.
// For what must not be done with the table locked: the kernel opens a disk under a mutex of its own and
// the driver's open operation wants the table, so whoever takes a disk away, or does I/O that may pass
// through a node, has this mutex alone.
extern zumutex trak_nodes_mutex;

// Readies both locks. Called once by the module's load, before anything can ask for a node; the control
// device and the status tree are there before the block side is, and find no table then.
void trak_table_init();
// Allocates the empty table: 0 or -ENOMEM, which a trak_max_blk_minor that no device number can hold
// (negative ones count as unsigned) gives too. Takes the lock. Context: sleep.
[[nodiscard]] int trak_table_create() TRAK_EXCLUDES(trak_blkdev_rwlock);
// Frees the table, whose entries are empty, if there is one. The lock is held for writing.
void trak_table_destroy() TRAK_REQUIRES(trak_blkdev_rwlock);

// The record of a minor, or null: no table, beyond the table, or no node. The lock is held at least
// for reading.
[[nodiscard]] trak_device *trak_find_device(std::uint32_t minor)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);

// Takes the disk of an orphan away that has the minor which a creation asks for (negative: the lowest free
// one), unless it is open: two disks can't have one device number.
void trak_free_minor(std::int32_t minor) TRAK_REQUIRES(trak_nodes_mutex)
    TRAK_EXCLUDES(trak_blkdev_rwlock);

// Whether trak_place_device will find a minor: its results and messages, with nothing stored but *minor.
[[nodiscard]] int trak_choose_minor(const char *function, std::int32_t *minor)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);

// Picks the minor that a creation asked for (*minor < 0: the lowest free one, written back) and stores
// the record in the table: 0, -EINVAL (too big, taken) or -ENOSPC, logged under the creating
// function's name. The lock is held for writing.
[[nodiscard]] int trak_place_device(const char *function, trak_device *dev, std::int32_t *minor)
    TRAK_REQUIRES(trak_blkdev_rwlock);

// Formats 16 random bytes as a braced identifier of 38 characters and a NUL.
void trak_generate_uuid(char uuid[TRAK_UUID_SIZE]);

#endif
