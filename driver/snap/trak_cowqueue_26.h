// driver/snap/trak_cowqueue_26.h: requests of a filter that wait for its COW thread
// SPDX-License-Identifier: GPL-2.0-only
//
// Owner      one filter's record. Never owns the bios: it completes them only when it is purged.
// Locks      spin (rank 64, not taken in interrupt context).
// Units      block = 4096 bytes = 8 sectors, whatever the chunk size.
// Invariant  cnt == number of records in `requests`; the head is the COW thread's and nothing is
//            ever placed before it.
#ifndef TRAK_SNAP_TRAK_COWQUEUE_26_H
#define TRAK_SNAP_TRAK_COWQUEUE_26_H

#include <cstdint>

#include "driver/snap/bio_range.h"
#include "driver/utils/atomic.h"
#include "driver/utils/list.h"
#include "os/bio.h"
#include "os/lock.h"
#include "os/wait.h"

struct trak_device;

struct trak_cowqueue {
    trak_list requests;
    trak_list *hash;  // 16384 buckets of block records
    os_spinlock spin;
    trak_atomic32 cnt;
    os_wait_queue_head wait;
    std::uint32_t removed;  // by spin: requests taken out so far, always the head of the moment
};

struct cow_request {
    trak_list link;
    trak_list blocks;
    std::uint32_t
        snap_minor;  // newest started snap when it was queued; -1 after that snap's restart
    os_bio *bio;
    // Of the bio as it was queued; once it is under way on the disk it no longer tells.
    bio_range range;
    bool write;
};

struct cow_block {
    trak_list request_link;
    trak_list hash_link;
    cow_request *request;
};

// 0 or -ENOMEM. Context: sleep.
[[nodiscard]] int trak_cowqueue_init(trak_cowqueue *queue);
// 0 or -ENOMEM (the queue unchanged). Context: as gfp says.
[[nodiscard]] int trak_cowqueue_append(trak_cowqueue *queue, std::uint32_t snap_minor, os_bio *bio,
                                       os_gfp gfp);
// 1 when a queued read (reads != 0) or write (writes != 0) overlaps the bio's sectors, else 0.
[[nodiscard]] int trak_cowqueue_find_overlap_req(trak_cowqueue *queue, int reads, int writes,
                                                 os_bio *bio);
// The same for a range of sectors.
[[nodiscard]] int trak_cowqueue_find_overlap_range(trak_cowqueue *queue, int reads, int writes,
                                                   std::uint64_t sector, std::uint64_t sectors);
// Takes a request out and frees it; spin held by the caller; the bio is not touched.
void trak_cowqueue_remove(trak_cowqueue *queue, cow_request *request);
int trak_cowqueue_purge(trak_cowqueue *queue);  // every queued bio ends with -EIO; 0
int trak_cowqueue_destroy(trak_cowqueue *queue);
// Queues a bio under the minor of the filter's newest started snap (0: none started). The filter's
// snap_rwlock is held for reading.
[[nodiscard]] int queue_req(trak_device *filter, os_bio *bio, os_gfp gfp);

#endif
