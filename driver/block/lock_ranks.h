// driver/block/lock_ranks.h: every lock of the driver and the order in which they are taken
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_BLOCK_LOCK_RANKS_H
#define TRAK_BLOCK_LOCK_RANKS_H

#include "os/lock.h"

// A task takes locks in rising rank. Spin locks come last: nothing sleeps under them.
inline constexpr os_lock_class trak_rank_nodes_mutex{"trak_nodes_mutex", 5};
inline constexpr os_lock_class trak_rank_table{"trak_blkdev_rwlock", 10};
inline constexpr os_lock_class trak_rank_filter_mutex{"filter dev_mutex", 20};
inline constexpr os_lock_class trak_rank_snap_mutex{"snap dev_mutex", 25};
inline constexpr os_lock_class trak_rank_bmp_mutex{"bmp_mutex", 30};
inline constexpr os_lock_class trak_rank_snap_rwlock{"snap_rwlock", 40};
inline constexpr os_lock_class trak_rank_cowbmp{"cowbmp.lock", 45};
inline constexpr os_lock_class trak_rank_bmp_spin{"bmp_spin", 60};
inline constexpr os_lock_class trak_rank_req_spin{"req_spin", 62};
inline constexpr os_lock_class trak_rank_cowqueue_spin{"cowqueue.spin", 64};
inline constexpr os_lock_class trak_rank_aio_spin{"aio_spin", 66};
inline constexpr os_lock_class trak_rank_zurwlock_spin{"zurwlock.spin", 80};

#endif
