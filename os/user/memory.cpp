// os/user/memory.cpp: memory from the heap, pools with a reserve, pages
// SPDX-License-Identifier: GPL-2.0-only
//
// A pool takes from the heap first and from its reserve when the heap gives nothing; what comes back
// refills the reserve first. A waiting allocation sleeps until an element comes back, so it ends as
// long as the holders of elements end.
//
// A page is its address: any memory can be one, so data of a submitter needs no page of its own.
#include "os/user/memory.h"

#include <sys/random.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <vector>

#include "os/memory.h"
#include "os/random.h"
#include "os/time.h"
#include "os/user/sync.h"
#include "os/user/task.h"

namespace user {

std::atomic<bool> heap_is_empty{false};

namespace {

void *heap_alloc(std::size_t size, std::size_t align) {
    if (heap_is_empty.load(std::memory_order_relaxed) || size > SIZE_MAX / 2)
        return nullptr;
    if (size == 0)
        size = 1;
    if (align <= alignof(std::max_align_t))
        return malloc(size);
    return aligned_alloc(align, (size + align - 1) / align * align);
}

}  // namespace

}  // namespace user

struct os_kmem_cache {
    std::size_t size;
    std::size_t align;
};

struct os_mempool {
    os_kmem_cache *cache;
    std::size_t reserve;
    user::Mutex mutex;
    user::Condition freed;
    std::vector<void *> kept USER_GUARDED_BY(mutex);  // at most `reserve`
    // True while kept holds less than the reserve; changes under the mutex. Whoever frees an element
    // that came from the reserve sees it, for it was true when the element was handed out.
    std::atomic<bool> lacking{false};
};

extern "C" {

void *os_kmalloc(size_t size, os_gfp gfp) {
    if (gfp != OS_GFP_ATOMIC)
        user::may_sleep_here("allocation that may sleep");
    return user::heap_alloc(size, 1);
}

void *os_kzalloc(size_t size, os_gfp gfp) {
    void *p = os_kmalloc(size, gfp);
    if (p)
        memset(p, 0, size);
    return p;
}

void os_kfree(void *p) {
    free(p);
}

void *os_vmalloc(size_t size) {
    return os_kmalloc(size, OS_GFP_KERNEL);
}

void os_vfree(void *p) {
    free(p);
}

os_kmem_cache *os_kmem_cache_create(const char *, size_t size, size_t align) {
    if (align & (align - 1))
        return nullptr;
    return new (std::nothrow) os_kmem_cache{size, align};
}

void os_kmem_cache_destroy(os_kmem_cache *cache) {
    delete cache;
}

os_mempool *os_mempool_create_slab(int reserve, os_kmem_cache *cache) {
    os_mempool *pool =
        new (std::nothrow) os_mempool{cache, static_cast<size_t>(reserve), {}, {}, {}, {}};
    if (!pool)
        return nullptr;
    bool complete = true;
    {
        user::Guard held(pool->mutex);
        pool->kept.reserve(pool->reserve);
        while (complete && pool->kept.size() < pool->reserve) {
            void *element = user::heap_alloc(cache->size, cache->align);
            complete = element != nullptr;
            if (complete)
                pool->kept.push_back(element);
        }
    }
    if (!complete) {
        os_mempool_destroy(pool);
        return nullptr;
    }
    return pool;
}

void os_mempool_destroy(os_mempool *pool) {
    if (!pool)
        return;
    {
        user::Guard held(pool->mutex);
        for (void *element : pool->kept)
            free(element);
        pool->kept.clear();
    }
    delete pool;
}

void *os_mempool_alloc(os_mempool *pool, os_gfp gfp) {
    if (gfp != OS_GFP_ATOMIC)
        user::may_sleep_here("allocation that may sleep");
    if (void *element = user::heap_alloc(pool->cache->size, pool->cache->align))
        return element;
    user::Guard held(pool->mutex);
    while (pool->kept.empty()) {
        if (gfp == OS_GFP_ATOMIC)
            return nullptr;
        pool->freed.wait(pool->mutex);
    }
    void *element = pool->kept.back();
    pool->kept.pop_back();
    pool->lacking.store(true);
    return element;
}

void os_mempool_free(void *element, os_mempool *pool) {
    if (!element)
        return;
    if (pool->lacking.load()) {
        user::Guard held(pool->mutex);
        if (pool->kept.size() < pool->reserve) {
            pool->kept.push_back(element);
            element = nullptr;
            pool->lacking.store(pool->kept.size() < pool->reserve);
            pool->freed.notify_all();
        }
    }
    free(element);
}

os_page *os_alloc_page(os_gfp gfp) {
    if (gfp != OS_GFP_ATOMIC)
        user::may_sleep_here("allocation that may sleep");
    return static_cast<os_page *>(user::heap_alloc(OS_PAGE_SIZE, OS_PAGE_SIZE));
}

void os_free_page(os_page *page) {
    free(page);
}

void *os_page_address(os_page *page) {
    return page;
}

uint64_t os_jiffies(void) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

void os_get_random_bytes(void *buf, size_t count) {
    unsigned char *to = static_cast<unsigned char *>(buf);
    while (count) {
        ssize_t got = getrandom(to, count, 0);
        if (got > 0) {
            to += got;
            count -= static_cast<size_t>(got);
        }
    }
}

}  // extern "C"
