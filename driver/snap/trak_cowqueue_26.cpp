// driver/snap/trak_cowqueue_26.cpp: requests of a filter that wait for its COW thread
// SPDX-License-Identifier: GPL-2.0-only
//
// Order     a write goes to the tail. A read goes behind the last queued request that touches its
//           sectors, else behind the head: it overtakes what it does not touch, and never the head,
//           which the COW thread is working on.
// Index     every request has one block record per 4 KiB block that it touches, in bucket
//           (block & 0x3fff) of the hash; far-away blocks share buckets, so the sectors decide.
// Memory    records come from two pools that all queues share; the first queue makes them, the
//           last one takes them down. Both happen under trak_blkdev_rwlock held for writing.
#include "driver/snap/trak_cowqueue_26.h"

#include "driver/block/device.h"
#include "driver/block/lock_ranks.h"
#include "driver/block/locks.h"
#include "driver/module/log.h"
#include "driver/utils/string.h"
#include "os/memory.h"

namespace {

constexpr std::uint32_t kBuckets = 16384;
constexpr int kReserve = 8192;
constexpr std::uint32_t kBlockSectorShift = 3;

OS_MODULE_STATE constinit os_kmem_cache *request_cache = nullptr;
OS_MODULE_STATE constinit os_kmem_cache *block_cache = nullptr;
OS_MODULE_STATE constinit os_mempool *request_pool = nullptr;
OS_MODULE_STATE constinit os_mempool *block_pool = nullptr;
OS_MODULE_STATE constinit trak_atomic32 cowqueue_cnt = {0};

void destroy_allocators() {
    if (request_pool != nullptr)
        os_mempool_destroy(request_pool);
    if (block_pool != nullptr)
        os_mempool_destroy(block_pool);
    if (request_cache != nullptr)
        os_kmem_cache_destroy(request_cache);
    if (block_cache != nullptr)
        os_kmem_cache_destroy(block_cache);
    request_pool = block_pool = nullptr;
    request_cache = block_cache = nullptr;
}

bool create_allocators() {
    if (request_cache == nullptr)
        request_cache = os_kmem_cache_create("cow_request", sizeof(cow_request), 8);
    if (block_cache == nullptr)
        block_cache = os_kmem_cache_create("cow_block", sizeof(cow_block), 8);
    if (request_pool == nullptr && request_cache != nullptr)
        request_pool = os_mempool_create_slab(kReserve, request_cache);
    if (block_pool == nullptr && block_cache != nullptr)
        block_pool = os_mempool_create_slab(kReserve, block_cache);
    return request_pool != nullptr && block_pool != nullptr;
}

trak_list *bucket_of(trak_cowqueue *queue, std::uint64_t block) {
    return &queue->hash[block & (kBuckets - 1)];
}

cow_request *request_of_link(trak_list *link) {
    return trak_container_of(link, cow_request, link);
}

// Frees a request that is in no queue, its block records first.
void free_request(cow_request *request) {
    while (!trak_list_empty(&request->blocks)) {
        cow_block *block = trak_container_of(request->blocks.next, cow_block, request_link);
        trak_list_del(&block->request_link);
        os_mempool_free(block, block_pool);
    }
    os_mempool_free(request, request_pool);
}

cow_request *make_request(std::uint32_t snap_minor, os_bio *bio, os_gfp gfp) {
    auto *request = static_cast<cow_request *>(os_mempool_alloc(request_pool, gfp));
    if (request == nullptr)
        return nullptr;
    memset(request, 0, sizeof(*request));
    trak_list_init(&request->link);
    trak_list_init(&request->blocks);
    request->snap_minor = snap_minor;
    request->bio = bio;
    request->range = bio_range_of(bio);
    request->write = bio_is_write(bio);

    const bio_range range = request->range;
    if (range.sectors == 0)
        return request;
    const std::uint64_t last = range.last >> kBlockSectorShift;
    for (std::uint64_t k = range.first >> kBlockSectorShift; k <= last; ++k) {
        auto *block = static_cast<cow_block *>(os_mempool_alloc(block_pool, gfp));
        if (block == nullptr) {
            free_request(request);
            return nullptr;
        }
        block->request = request;
        trak_list_init(&block->hash_link);
        trak_list_add_tail(&block->request_link, &request->blocks);
    }
    return request;
}

// The link behind which a new request goes; spin held.
trak_list *place_of(trak_cowqueue *queue, const cow_request *request) {
    if (request->write || trak_list_empty(&queue->requests))
        return queue->requests.prev;
    for (trak_list *at = queue->requests.prev; at != &queue->requests; at = at->prev)
        if (bio_ranges_overlap(request->range, request_of_link(at)->range))
            return at;
    return queue->requests.next;
}

bool bucket_overlaps(trak_list *bucket, const bio_range &range, int reads, int writes) {
    for (trak_list *at = bucket->next; at != bucket; at = at->next) {
        const cow_request *queued = trak_container_of(at, cow_block, hash_link)->request;
        const int wanted = queued->write ? writes : reads;
        if (wanted != 0 && bio_ranges_overlap(range, queued->range))
            return true;
    }
    return false;
}

}  // namespace

int trak_cowqueue_init(trak_cowqueue *queue) {
    memset(queue, 0, sizeof(*queue));
    cowqueue_cnt.add(1);
    trak_list_init(&queue->requests);
    os_spin_lock_init(&queue->spin, &trak_rank_cowqueue_spin);
    os_init_waitqueue_head(&queue->wait);

    queue->hash = static_cast<trak_list *>(os_vmalloc(kBuckets * sizeof(trak_list)));
    if (queue->hash == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to create queue hash.");
    } else {
        trak_list_init_all(queue->hash, kBuckets);
        if (create_allocators())
            return 0;
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
    }
    if (cowqueue_cnt.sub(1) == 0)
        destroy_allocators();
    os_vfree(queue->hash);
    memset(queue, 0, sizeof(*queue));
    return -ENOMEM;
}

int trak_cowqueue_append(trak_cowqueue *queue, std::uint32_t snap_minor, os_bio *bio, os_gfp gfp) {
    trak_logf(TRAK_LOG_DETAIL, "%s(): Appending new request...");
    cow_request *request = make_request(snap_minor, bio, gfp);
    if (request == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed");
        return -ENOMEM;
    }
    {
        const trak_spin_guard guard(&queue->spin);
        std::uint64_t k = request->range.first >> kBlockSectorShift;
        for (trak_list *at = request->blocks.next; at != &request->blocks; at = at->next, ++k)
            trak_list_add_head(&trak_container_of(at, cow_block, request_link)->hash_link,
                               bucket_of(queue, k));
        queue->cnt.add(1);
        trak_list_insert_after(&request->link, place_of(queue, request));
    }
    os_wake_up(&queue->wait);
    return 0;
}

int trak_cowqueue_find_overlap_req(trak_cowqueue *queue, int reads, int writes, os_bio *bio) {
    OS_BUG_ON(queue == nullptr);
    OS_BUG_ON(bio == nullptr);
    OS_BUG_ON(reads == 0 && writes == 0);
    const bio_range range = bio_range_of(bio);
    return trak_cowqueue_find_overlap_range(queue, reads, writes, range.first, range.sectors);
}

int trak_cowqueue_find_overlap_range(trak_cowqueue *queue, int reads, int writes,
                                     std::uint64_t sector, std::uint64_t sectors) {
    // cnt goes up before a request is linked and down after it was taken out: none, and the list is empty.
    if (sectors == 0 || queue->cnt.load() == 0)
        return 0;
    const bio_range range = {sector, sector + sectors - 1, sectors};
    std::uint64_t k = range.first >> kBlockSectorShift;
    std::uint64_t last = range.last >> kBlockSectorShift;
    // A range that is longer than the hash visits every bucket once.
    if (last - k >= kBuckets)
        last = k + kBuckets - 1;
    const trak_spin_guard guard(&queue->spin);
    for (; k <= last; ++k)
        if (bucket_overlaps(bucket_of(queue, k), range, reads, writes))
            return 1;
    return 0;
}

void trak_cowqueue_remove(trak_cowqueue *queue, cow_request *request) {
    OS_BUG_ON(queue == nullptr);
    OS_BUG_ON(request == nullptr);
    for (trak_list *at = request->blocks.next; at != &request->blocks; at = at->next)
        trak_list_del(&trak_container_of(at, cow_block, request_link)->hash_link);
    trak_list_del(&request->link);
    free_request(request);
    queue->cnt.sub(1);
    ++queue->removed;
}

int trak_cowqueue_purge(trak_cowqueue *queue) {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Purging all COW queue requests");
    for (;;) {
        os_bio *bio;
        {
            const trak_spin_guard guard(&queue->spin);
            if (trak_list_empty(&queue->requests))
                return 0;
            cow_request *request = request_of_link(queue->requests.next);
            bio = request->bio;
            trak_cowqueue_remove(queue, request);
        }
        os_bio_endio(bio, -EIO);
    }
}

int trak_cowqueue_destroy(trak_cowqueue *queue) {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Destroying COW queue");
    const int rc = trak_cowqueue_purge(queue);
    if (cowqueue_cnt.sub(1) == 0) {
        trak_logf(TRAK_LOG_COMMAND, "%s(): Destroying global COW allocators.");
        destroy_allocators();
    }
    os_vfree(queue->hash);
    memset(queue, 0, sizeof(*queue));
    return rc;
}

int queue_req(trak_device *filter, os_bio *bio, os_gfp gfp) {
    std::uint32_t minor = 0;
    trak_list *snaps = &filter->filter.snaps;
    for (trak_list *at = snaps->prev; at != snaps; at = at->prev) {
        const trak_device *snap = trak_device_of_link(at);
        if (trak_read_once(snap->started) != 0) {
            minor = static_cast<std::uint32_t>(snap->minor);
            break;
        }
    }
    return trak_cowqueue_append(&filter->filter.cowqueue, minor, bio, gfp);
}
