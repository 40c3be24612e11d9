// driver/block/device.h: the device record: one per node
// SPDX-License-Identifier: GPL-2.0-only
//
// Owner      the node table, from creation to destroy; freed by trak_block_destroy_device.
// Locks      each group of fields says what protects it. Holding trak_blkdev_rwlock (read is enough)
//            keeps a record in existence.
// Strings    fixed arrays, always terminated.
#ifndef TRAK_BLOCK_DEVICE_H
#define TRAK_BLOCK_DEVICE_H

#include <cstdint>

#include "abi/trak_ioctl.h"
#include "driver/block/locks.h"
#include "driver/block/trak_aio_26.h"
#include "driver/fsreaders/blkbmp.h"
#include "driver/snap/cowbmp.h"
#include "driver/snap/trak_cowqueue_26.h"
#include "driver/snap/trak_cowthread_26.h"
#include "driver/utils/atomic.h"
#include "driver/utils/list.h"
#include "driver/utils/trak_utils.h"
#include "os/bdev.h"
#include "os/disk.h"

// The node types and bitmap types are those of the control interface (abi/trak_ioctl.h):
// TRAK_DEV_FILTER, TRAK_DEV_SNAP; TRAK_BMP_DIFF, TRAK_BMP_INCR.

struct trak_filter {
    // Constant after creation.
    std::uint32_t hdd_dev;
    char hdd_name[TRAK_PATH_SIZE];
    os_bdev *hdd_bdev;
    std::uint32_t part_minor;
    std::uint32_t extent_size;  // bytes, a power of two
    std::int32_t extent_shift;
    std::uint32_t extent_cnt;
    std::uint64_t dev_size;  // bytes
    char bmp_dir[TRAK_PATH_SIZE];

    // The snaps, oldest start first (never started ones in the order of creation). Changed under
    // trak_blkdev_rwlock (any) with snap_rwlock held for writing; read under snap_rwlock held for
    // reading, or dev_mutex of the filter with trak_blkdev_rwlock, or the latter held for writing.
    trak_list snaps;

    zumutex bmp_mutex;     // saving, loading and flag writes of the two bitmaps, one at a time
    os_spinlock bmp_spin;  // the bits and the two dirty flags
    std::int32_t incr_bmp_size;  // bytes
    std::int32_t diff_bmp_size;
    std::uint8_t *incr_bmp;
    std::uint8_t *diff_bmp;
    char incr_bmp_fname[TRAK_PATH_SIZE];
    char diff_bmp_fname[TRAK_PATH_SIZE];
    std::uint32_t incr_bmp_dirty;
    std::uint32_t diff_bmp_dirty;

    trak_cowthread cowthread;
    trak_cowqueue cowqueue;
    zurwlock snap_rwlock;  // read around every request; written by snapshot start and stop
    trak_atomic32 write_cnt;
    aio_tracker aio;
};

struct trak_device;

struct trak_snap {
    trak_list snap_link;
    std::uint32_t part_minor;
    std::uint32_t chunk_size;  // bytes, a power of two
    std::int32_t chunk_shift;
    std::uint64_t chunk_cnt;
    trak_device *filter;  // the parent's record
    char cow_data_fname[TRAK_PATH_SIZE];
    char cow_bmp_fname[TRAK_PATH_SIZE];
    trak_file *cow_data_file;  // open while started
    trak_file *cow_bmp_file;
    trak_cowbmp cowbmp;
    trak_blkbmp blkbmp;
    std::int64_t cow_data_size;  // bytes
    std::int32_t cow_bmp_size;   // bytes
    // Written with the filter's snap_rwlock held for writing (kcowd clears snap_valid holding it for
    // reading); read with trak_read_once, del_pending too.
    std::uint32_t snap_valid;
    std::uint32_t stop_pending;
    std::uint32_t del_pending;
    trak_atomic32 marking;  // 1: bits were set in memory that are not yet durable in their file
    trak_device *before;    // by whoever stops or destroys several snaps: the one done before this
};

struct trak_device {
    std::uint32_t dev_type;
    os_disk *disk;
    os_bdev *last_open_bdev;  // by dev_mutex
    std::uint32_t started;    // written under dev_mutex (a snap's also with its filter's
                              // snap_rwlock held for writing); read with trak_read_once
    trak_atomic32 use_cnt;
    zumutex dev_mutex;
    std::int32_t minor;
    char uuid[TRAK_UUID_SIZE];
    char name[TRAK_NAME_SIZE];
    char dev_name[TRAK_NAME_SIZE];
    union {
        trak_filter filter;
        trak_snap snap;
    };
    trak_list orphan_link;  // by trak_blkdev_rwlock: among nodes that lost their table entry; by
                            // trak_nodes_mutex: among those that a destroy has taken out of it
};

inline bool trak_is_filter(const trak_device *dev) {
    return dev->dev_type == TRAK_DEV_FILTER;
}
inline trak_device *trak_device_of(trak_filter *filter) {
    return trak_container_of(filter, trak_device, filter);
}
inline trak_device *trak_device_of_snap(trak_snap *snap) {
    return trak_container_of(snap, trak_device, snap);
}
// The record of a link in a filter's `snaps`.
inline trak_device *trak_device_of_link(trak_list *link) {
    return trak_device_of_snap(trak_container_of(link, trak_snap, snap_link));
}

#endif
