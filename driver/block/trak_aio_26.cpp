// driver/block/trak_aio_26.cpp: clones of the requests that a filter sends to its disk
// SPDX-License-Identifier: GPL-2.0-only
//
// The life of a clone:
//
//   made        its item is in the tracker's list and its block records are in the hash; its parent
//               blocks requests that overlap.
//   ended       end_io took the parent out of the item and completes it; the item blocks nobody now.
//   destroyed   the last reference went: the destructor takes item and blocks out and returns them.
//
// A tracker may be destroyed at any point of that. Destroy then takes the item away from the clone and
// restores the clone's own destructor, so that nothing of ours runs for it any more, but for a destructor
// call that was on its way at that moment: it finds no item and only passes the call on. Items and blocks
// that a destructor holds outside the lock are counted in aio_returning, for which the pools wait.
//
// A parent is read (sector, size, device) only under aio_spin and only while its item has it: who
// completes it takes it out under the same lock first.
#include "driver/block/trak_aio_26.h"

#include <os_embedded.h>

#include "driver/block/lock_ranks.h"
#include "driver/block/locks.h"
#include "driver/module/log.h"
#include "driver/utils/atomic.h"
#include "driver/utils/string.h"
#include "os/bdev.h"
#include "os/task.h"

namespace {

constexpr int pool_reserve = 4096;
constexpr std::size_t record_align = 8;
constexpr std::size_t bucket_cnt = 4096;
constexpr unsigned sectors_per_block_shift = 3;

struct aio_item {
    trak_list link;
    trak_list blocks;
    os_bio *parent;  // null once it was completed
    os_bio *clone;
    os_bio_destructor_fn saved_destructor;
};

struct aio_block {
    trak_list item_link;
    trak_list hash_link;
    aio_item *item;
};

OS_MODULE_STATE constinit os_kmem_cache *item_cache = nullptr;
OS_MODULE_STATE constinit os_kmem_cache *block_cache = nullptr;
OS_MODULE_STATE constinit os_mempool *item_pool = nullptr;
OS_MODULE_STATE constinit os_mempool *block_pool = nullptr;
OS_MODULE_STATE constinit os_spinlock aio_spin{};
OS_MODULE_STATE constinit bool aio_spin_ready = false;  // it outlives trackers: clones may
OS_MODULE_STATE constinit trak_atomic32 aio_cnt{};
OS_MODULE_STATE constinit trak_atomic32 aio_returning{};  // destructors that hold pool memory

struct block_range {
    std::uint64_t first;
    std::uint64_t cnt;
};

// The blocks that a request touches; none for one without a whole sector.
block_range blocks_of(const os_bio *bio) {
    const std::uint64_t sector = os_bio_sector(bio);
    const std::uint64_t sectors = os_bio_size(bio) >> OS_SECTOR_SHIFT;
    if (sectors == 0)
        return {0, 0};
    const std::uint64_t first = sector >> sectors_per_block_shift;
    const std::uint64_t last = (sector + sectors - 1) >> sectors_per_block_shift;
    return {first, last - first + 1};
}

bool overlap(const os_bio *a, const os_bio *b) {
    const std::uint64_t a_first = os_bio_sector(a);
    const std::uint64_t b_first = os_bio_sector(b);
    const std::uint64_t a_end = a_first + (os_bio_size(a) >> OS_SECTOR_SHIFT);
    const std::uint64_t b_end = b_first + (os_bio_size(b) >> OS_SECTOR_SHIFT);
    return a_end > b_first && a_first < b_end;
}

trak_list *bucket_of(const aio_tracker *tracker, std::uint64_t block) {
    return &tracker->hash[block & (bucket_cnt - 1)];
}

// Returns an item that is in no list, with its blocks, which are in no bucket.
void free_item(aio_item *item) {
    while (!trak_list_empty(&item->blocks)) {
        aio_block *block = trak_container_of(item->blocks.next, aio_block, item_link);
        trak_list_del(&block->item_link);
        os_mempool_free(block, block_pool);
    }
    os_mempool_free(item, item_pool);
}

// An item with a block record for each block of the range, or null.
aio_item *alloc_item(std::uint64_t block_cnt, os_gfp gfp) {
    auto *item = static_cast<aio_item *>(os_mempool_alloc(item_pool, gfp));
    if (item == nullptr)
        return nullptr;
    *item = {};
    trak_list_init(&item->blocks);
    for (std::uint64_t i = 0; i < block_cnt; ++i) {
        auto *block = static_cast<aio_block *>(os_mempool_alloc(block_pool, gfp));
        if (block == nullptr) {
            free_item(item);
            return nullptr;
        }
        block->item = item;
        trak_list_init(&block->hash_link);
        trak_list_add_tail(&block->item_link, &item->blocks);
    }
    return item;
}

// Under aio_spin. A parent in flight that overlaps the request, or null.
os_bio *find_overlap(const aio_tracker *tracker, const os_bio *request, block_range range) {
    for (std::uint64_t i = 0; i < range.cnt; ++i) {
        trak_list *bucket = bucket_of(tracker, range.first + i);
        for (trak_list *link = bucket->next; link != bucket; link = link->next) {
            os_bio *parent = trak_container_of(link, aio_block, hash_link)->item->parent;
            if (parent != nullptr && overlap(parent, request))
                return parent;
        }
    }
    return nullptr;
}

// Under aio_spin. From here on the clone is in flight.
void publish(aio_tracker *tracker, aio_item *item, block_range range, os_bio *request,
             os_bio *clone) {
    std::uint64_t number = range.first;
    for (trak_list *link = item->blocks.next; link != &item->blocks; link = link->next) {
        aio_block *block = trak_container_of(link, aio_block, item_link);
        trak_list_add_tail(&block->hash_link, bucket_of(tracker, number++));
    }
    item->parent = request;
    item->clone = clone;
    item->saved_destructor = os_bio_destructor(clone);
    os_bio_set_destructor(clone, trak_aio_destructor);
    os_bio_set_private(clone, item);
    os_bio_set_end_io(clone, trak_aio_end_io);
    trak_list_add_tail(&item->link, &tracker->items);
}

// Under aio_spin. Takes an item and its blocks out of the tracker.
void unpublish(aio_item *item) {
    trak_list_del(&item->link);
    for (trak_list *link = item->blocks.next; link != &item->blocks; link = link->next)
        trak_list_del(&trak_container_of(link, aio_block, item_link)->hash_link);
}

// The queue of the disk that a parent addresses. It is a node's, whose unplug reaches the filtered disk,
// or the filtered disk's own. (The clone names the disk itself, but its maker may be changing that.)
os_queue *queue_of(const os_bio *parent) {
    os_bdev *bdev = os_bio_bdev(parent);
    return bdev != nullptr ? os_bdev_queue(bdev) : nullptr;
}

void destroy_allocators() {
    // A destructor that took its item out under the lock returns it in a moment.
    while (aio_returning.load() != 0)
        os_yield();
    if (item_pool != nullptr)
        os_mempool_destroy(item_pool);
    if (block_pool != nullptr)
        os_mempool_destroy(block_pool);
    if (item_cache != nullptr)
        os_kmem_cache_destroy(item_cache);
    if (block_cache != nullptr)
        os_kmem_cache_destroy(block_cache);
    item_pool = block_pool = nullptr;
    item_cache = block_cache = nullptr;
}

bool create_allocators() {
    if (item_cache == nullptr)
        item_cache = os_kmem_cache_create("aio_item", sizeof(aio_item), record_align);
    if (block_cache == nullptr)
        block_cache = os_kmem_cache_create("aio_block", sizeof(aio_block), record_align);
    if (item_pool == nullptr && item_cache != nullptr)
        item_pool = os_mempool_create_slab(pool_reserve, item_cache);
    if (block_pool == nullptr && block_cache != nullptr)
        block_pool = os_mempool_create_slab(pool_reserve, block_cache);
    return item_cache != nullptr && block_cache != nullptr && item_pool != nullptr &&
           block_pool != nullptr;
}

trak_list *new_hash() {
    auto *hash =
        static_cast<trak_list *>(os_kzalloc(bucket_cnt * sizeof(trak_list), OS_GFP_KERNEL));
    if (hash != nullptr)
        trak_list_init_all(hash, bucket_cnt);
    return hash;
}

// Waits until the request overlaps nothing in flight and puts the clone in flight. False: it overlaps
// and the caller does not want to wait.
bool publish_in_order(aio_tracker *tracker, aio_item *item, block_range range, os_bio *request,
                      os_bio *clone, bool wait) {
    unsigned long flags = os_spin_lock_irqsave(&aio_spin);
    while (const os_bio *blocking = find_overlap(tracker, request, range)) {
        os_queue *queue = queue_of(blocking);
        os_spin_unlock_irqrestore(&aio_spin, flags);
        if (!wait)
            return false;
        os_queue_unplug(queue);
        os_yield();
        trak_log(TRAK_LOG_DETAIL, "%s(): waiting...", "trak_aio_clone");
        flags = os_spin_lock_irqsave(&aio_spin);
    }
    publish(tracker, item, range, request, clone);
    os_spin_unlock_irqrestore(&aio_spin, flags);
    return true;
}

// Until every clone is gone.
void drain(aio_tracker *tracker) {
    unsigned long flags = os_spin_lock_irqsave(&aio_spin);
    while (!trak_list_empty(&tracker->items)) {
        const aio_item *item = trak_container_of(tracker->items.next, aio_item, link);
        os_queue *queue = item->parent != nullptr ? queue_of(item->parent) : nullptr;
        os_spin_unlock_irqrestore(&aio_spin, flags);
        os_queue_unplug(queue);
        os_yield();
        flags = os_spin_lock_irqsave(&aio_spin);
    }
    os_spin_unlock_irqrestore(&aio_spin, flags);
}

// Takes the items away from their clones and fails the parents.
void fail_all(aio_tracker *tracker) {
    unsigned long flags = os_spin_lock_irqsave(&aio_spin);
    while (!trak_list_empty(&tracker->items)) {
        aio_item *item = trak_container_of(tracker->items.next, aio_item, link);
        os_bio *parent = item->parent;
        os_bio_set_destructor(item->clone, item->saved_destructor);
        os_bio_set_private(item->clone, nullptr);
        unpublish(item);
        free_item(item);
        if (parent == nullptr)
            continue;
        os_spin_unlock_irqrestore(&aio_spin, flags);
        os_bio_endio(parent, -EIO);
        flags = os_spin_lock_irqsave(&aio_spin);
    }
    os_spin_unlock_irqrestore(&aio_spin, flags);
}

}  // namespace

int trak_aio_init(aio_tracker *tracker) {
    OS_BUG_ON(tracker == nullptr);
    trak_logf(TRAK_LOG_COMMAND, "%s(): Initializing AIO tracker.");
    if (!aio_spin_ready) {
        os_spin_lock_init(&aio_spin, &trak_rank_aio_spin);
        aio_spin_ready = true;
    }
    aio_cnt.add(1);
    trak_list_init(&tracker->items);
    tracker->hash = new_hash();
    const bool allocators = create_allocators();
    if (tracker->hash != nullptr && allocators)
        return 0;
    trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
    os_kfree(tracker->hash);
    *tracker = {};
    if (aio_cnt.sub(1) == 0)
        destroy_allocators();
    return -ENOMEM;
}

os_bio *trak_aio_clone(aio_tracker *tracker, os_bio *request, std::uint32_t wait, os_gfp gfp) {
    OS_BUG_ON(tracker == nullptr || request == nullptr);
    const block_range range = blocks_of(request);
    aio_item *item = alloc_item(range.cnt, gfp);
    if (item == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        return nullptr;
    }
    os_bio *clone = os_bio_clone(request, gfp);
    if (clone == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to clone BIO.");
        free_item(item);
        return nullptr;
    }
    if (!publish_in_order(tracker, item, range, request, clone, wait != 0)) {
        os_bio_put(clone);
        free_item(item);
        return nullptr;
    }
    return clone;
}

bool trak_aio_overlaps(aio_tracker *tracker, const os_bio *request) {
    os_queue *queue;
    {
        const trak_spin_irq_guard spin(&aio_spin);
        const os_bio *blocking = find_overlap(tracker, request, blocks_of(request));
        if (blocking == nullptr)
            return false;
        queue = queue_of(blocking);
    }
    os_queue_unplug(queue);
    return true;
}

void trak_aio_end_io(os_bio *clone, int error) {
    OS_BUG_ON(clone == nullptr);
    os_bio *parent = nullptr;
    {
        const trak_spin_irq_guard spin(&aio_spin);
        auto *item = static_cast<aio_item *>(os_bio_private(clone));
        if (item != nullptr) {
            parent = item->parent;
            item->parent = nullptr;
        }
    }
    if (parent != nullptr) {
        os_bio_set_idx(parent, os_bio_idx(clone));
        os_bio_endio(parent, error);
    }
    os_bio_put(clone);
}

void trak_aio_destructor(os_bio *clone) {
    OS_BUG_ON(clone == nullptr);
    aio_item *item = nullptr;
    os_bio_destructor_fn own = nullptr;
    {
        const trak_spin_irq_guard spin(&aio_spin);
        item = static_cast<aio_item *>(os_bio_private(clone));
        if (item != nullptr) {
            unpublish(item);
            aio_returning.add(1);
            own = item->saved_destructor;
            os_bio_set_destructor(clone, own);
        } else {
            // The tracker went after this call had been chosen, and put the clone's own back.
            own = os_bio_destructor(clone);
        }
    }
    if (own != nullptr && own != trak_aio_destructor)
        own(clone);
    if (item != nullptr) {
        free_item(item);
        aio_returning.sub(1);
    }
}

int trak_aio_destroy(aio_tracker *tracker, std::uint32_t wait) {
    OS_BUG_ON(tracker == nullptr);
    trak_logf(TRAK_LOG_COMMAND, "%s(): Destroying AIO tracker.");
    if (wait != 0)
        drain(tracker);
    else
        fail_all(tracker);
    if (aio_cnt.sub(1) == 0) {
        trak_logf(TRAK_LOG_COMMAND, "%s(): Destroying global AIO allocators.");
        destroy_allocators();
    }
    os_kfree(tracker->hash);
    *tracker = {};
    return 0;
}
