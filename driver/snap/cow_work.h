// driver/snap/cow_work.h: what kcowd works with, and the steps of its work
// SPDX-License-Identifier: GPL-2.0-only
//
// Context    every function runs in kcowd, with the node table held for reading and no other lock,
//            unless it says otherwise; all sleep.
// Head       the request being worked on stays at the head of the queue until it is finished, and
//            only kcowd takes requests out while it runs: a pointer to a queued request stays good.
#ifndef TRAK_SNAP_COW_WORK_H
#define TRAK_SNAP_COW_WORK_H

#include <cstdint>

#include "driver/block/device.h"
#include "driver/block/table.h"
#include "os/lock.h"

inline constexpr int kPageShift = 12;
static_assert(1 << kPageShift == OS_PAGE_SIZE);
inline constexpr std::uint32_t kGroupPages = 1024;
inline constexpr std::uint32_t kGroupShift = 22;  // log2 of a group's bytes
static_assert(kGroupPages * OS_PAGE_SIZE == 1u << kGroupShift);

// Allocated when the thread begins, so that the copy path allocates nothing but bitmap pages.
struct cow_work {
    trak_device *filter;
    trak_cowthread *thread;
    os_page **pages;        // kGroupPages
    os_bio **bios;          // kGroupPages, of one piece each
    std::uint32_t *chunks;  // kGroupPages: the group's chunks, all different
    std::uint32_t chunk_cnt;
    trak_atomic32 in_flight;  // reads of the group that have not come back
    os_completion all_read;
};

// Takes a finished request out of the queue and wakes whoever waits for that.
void cow_finish(cow_work *work, cow_request *request);
// The same, then ends its bio.
void cow_finish_with(cow_work *work, cow_request *request, int error);

// One read of a snap, from start to end.
void cow_serve_read(cow_work *work, trak_device *snap, cow_request *head)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// Copies what the head needs preserved, then sends it to the disk. It stays at the head when the thread
// was asked to end.
void cow_serve_filter_request(cow_work *work, cow_request *head)
    TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);
// Copies the chunks of the group from the disk into the snap's files; what fails invalidates.
void cow_chunks(cow_work *work, trak_device *snap) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock);

// Reads `length` bytes (a multiple of 512, at most a page) at the sector of the filter's disk into the
// page: length, or -EIO with a message. Uses the first of the thread's bios.
[[nodiscard]] int read_from_hdd(cow_work *work, std::uint64_t sector, int length, os_page *page);
// Sends a bio of the thread's own to the filter's disk, through a clone where memory allows; its end_io
// is set and runs in every case.
void cow_submit_read(cow_work *work, os_bio *bio);

#endif
