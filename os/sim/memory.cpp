// os/sim/memory.cpp: the driver's memory, tracked
// SPDX-License-Identifier: GPL-2.0-only
//
// Each piece is one malloc with a header before it, or comes from a shelf, so that the address sanitizer sees
// overruns. New memory holds 0xa5, freed memory 0x6b. Without the sanitizer a mark after the piece finds
// overruns at the free, and freed pieces are kept for a while and looked at for late writes.
#include "os/memory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "os/sim/kernel.h"
#include "os/sim/page.h"
#include "os/sim/sanitizer.h"
#include "os/sim/shelves.h"

extern "C" const char __executable_start;  // the linker's

namespace sim {

struct Block {
    Block *prev;  // the sanitizer's allocator writes over the first bytes of a freed piece
    Block *next;
    std::size_t size;
    std::uint64_t step;
    const void *caller;
    Kind kind;
    bool own;  // of the simulated machine
    std::uint64_t magic;
};

namespace {

constexpr std::uint64_t kLive = 0x6c697665b10c0001u;
constexpr std::uint64_t kFreed = 0x66726565b10c0002u;
constexpr std::size_t kHeader = 64;
constexpr std::size_t kMark = OS_SIM_ASAN ? 0 : 16;
constexpr std::size_t kKeptBytes = std::size_t{1} << 20;
constexpr int kFresh = 0xa5, kDead = 0x6b, kEdge = 0x5e;
static_assert(sizeof(Block) <= kHeader);

const char *const kNames[] = {"free memory",   "os_kmalloc",    "os_vmalloc", "cache",
                              "cache object",  "pool",          "page",       "bio",
                              "disk",          "request queue", "open file",  "directory entry",
                              "parent folder", "block device"};
static_assert(std::size(kNames) == static_cast<std::size_t>(Kind::kCount));

const char *name_of(Kind kind) {
    return kNames[static_cast<std::size_t>(kind)];
}

Block *block_of(const void *p) {
    return reinterpret_cast<Block *>(static_cast<char *>(const_cast<void *>(p)) - kHeader);
}

unsigned char *data_of(Block *block) {
    return reinterpret_cast<unsigned char *>(block) + kHeader;
}

std::size_t place_in_program(const void *address) {
    return static_cast<std::size_t>(static_cast<const char *>(address) - &__executable_start);
}

// The header is out of bounds for everybody but this file, which need not ask where the sanitizer does
// not look at it.
void unlock_header(Block *block) {
    if (OS_SIM_ASAN_HERE)
        OS_SIM_UNPOISON(block, kHeader);
}

void close_header(Block *block) {
    if (OS_SIM_ASAN_HERE)
        OS_SIM_POISON(block, kHeader);
}

Block *open_header(const void *p) {
    Block *block = block_of(p);
    unlock_header(block);
    return block;
}

void release(Block *block) {
    OS_SIM_UNPOISON(block, kHeader);
    std::free(block);
}

// Where the bytes stop being all of this value; size: nowhere. Compares the memory with itself one byte
// on, which the C library does fast.
std::size_t first_other(const unsigned char *bytes, std::size_t size, unsigned char value) {
    if (size && bytes[0] == value && std::memcmp(bytes, bytes + 1, size - 1) == 0)
        return size;
    std::size_t i = 0;
    while (i < size && bytes[i] == value)
        i++;
    return i;
}

void check_dead(Block *block) {
    std::size_t at = first_other(data_of(block), block->size, kDead);
    if (at != block->size)
        fail("freed memory was written to: byte %zu of a piece of %zu bytes (%s)", at, block->size,
             name_of(block->kind));
}

// Keeps a freed piece for a while, so that a late write to it is seen.
void keep_freed(Block *block) {
    Kernel &k = kernel();
    block->next = nullptr;
    if (k.freed_last)
        k.freed_last->next = block;
    else
        k.freed_first = block;
    k.freed_last = block;
    k.freed_bytes += block->size;
    while (k.freed_bytes > kKeptBytes) {
        Block *oldest = k.freed_first;
        k.freed_first = oldest->next;
        if (!k.freed_first)
            k.freed_last = nullptr;
        k.freed_bytes -= oldest->size;
        check_dead(oldest);
        std::free(oldest);
    }
}

void check_mark(Block *block, const char *function) {
    std::size_t at = first_other(data_of(block) + block->size, kMark, kEdge);
    if (at != kMark)
        fail("%s: byte %zu beyond a piece of %zu bytes (%s) was written to", function, at,
             block->size, name_of(block->kind));
}

bool may_allocate(os_gfp gfp, const char *function) {
    if (gfp != OS_GFP_ATOMIC)
        might_sleep(function);
    if (gfp == OS_GFP_KERNEL && self().in_make_request)
        fail("%s with OS_GFP_KERNEL on behalf of a request (it may wait for that request)",
             function);
    point();
    return !fault(Fault::kAlloc);
}

}  // namespace

void *mem_alloc_bare(Kind kind, std::size_t size, const void *caller) {
    Kernel &k = kernel();
    auto *block = static_cast<Block *>(shelves().room(kHeader + size + kMark, kHeader));
    if (!block)
        fail("the test machine has no %zu bytes", size);
    unlock_header(block);
    *block = Block{nullptr, k.blocks, size, k.steps, caller, kind, false, kLive};
    if (k.blocks) {
        unlock_header(k.blocks);
        k.blocks->prev = block;
        close_header(k.blocks);
    }
    k.blocks = block;
    fill(data_of(block) + size, kEdge, kMark);
    close_header(block);
    return data_of(block);
}

void *mem_alloc(Kind kind, std::size_t size, const void *caller) {
    void *p = mem_alloc_bare(kind, size, caller);
    fill(p, kFresh, size);
    return p;
}

unsigned char *page_data(os_page *page) {
    if (!page->data) {
        page->data = page->own;
        fill(page->data, kFresh, OS_PAGE_SIZE);
    }
    return page->data;
}

void mem_check(Kind kind, const void *p, const char *function) {
    Block *block = open_header(p);
    if (block->magic == kFreed)
        fail("%s: a %s that was freed already", function, name_of(block->kind));
    if (block->magic != kLive)
        fail("%s: not a %s", function, name_of(kind));
    if (block->kind != kind)
        fail("%s: wants a %s, got a %s", function, name_of(kind), name_of(block->kind));
    close_header(block);
}

void mem_own(void *p) {
    Block *block = open_header(p);
    block->own = true;
    close_header(block);
}

void mem_free(Kind kind, void *p, const char *function) {
    Kernel &k = kernel();
    mem_check(kind, p, function);
    Block *block = open_header(p);
    check_mark(block, function);
    check_held_in_freed(p, block->size);
    if (block->prev) {
        unlock_header(block->prev);
        block->prev->next = block->next;
        close_header(block->prev);
    } else {
        k.blocks = block->next;
    }
    if (block->next) {
        unlock_header(block->next);
        block->next->prev = block->prev;
        close_header(block->next);
    }
    block->magic = kFreed;
    if (shelves().in_use() && shelves().keep(block, kHeader + block->size + kMark))
        return;
    std::memset(p, kDead, block->size);
    if (OS_SIM_ASAN)
        release(block);
    else
        keep_freed(block);
}

std::string mem_leaks() {
    std::string text;
    unsigned count = 0;
    for (Block *block = kernel().blocks; block;) {
        unlock_header(block);
        Block *next = block->next;
        if (!block->own && ++count <= 8)
            text += format("\n  %s of %zu bytes, made at step %llu (addr2line -fe %s 0x%zx)",
                           name_of(block->kind), block->size,
                           static_cast<unsigned long long>(block->step), program_invocation_name,
                           place_in_program(block->caller));
        close_header(block);
        block = next;
    }
    if (count == kernel().expected_leaks)
        return "";
    return format("%u pieces were not given back (%u expected):", count, kernel().expected_leaks) +
           text;
}

void keep_memory(std::size_t bytes) {
    shelves().set_limit(bytes);
}

void expect_leaked_pieces(unsigned count) {
    kernel().expected_leaks = count;
}

void mem_check_freed() {
    for (Block *block = kernel().freed_first; block; block = block->next)
        check_dead(block);
}

void mem_drop_all() {
    Kernel &k = kernel();
    for (Block *block = k.blocks; block;) {
        unlock_header(block);
        Block *next = block->next;
        std::free(block);
        block = next;
    }
    for (Block *block = k.freed_first; block;) {
        Block *next = block->next;
        std::free(block);
        block = next;
    }
    k.blocks = k.freed_first = k.freed_last = nullptr;
}

}  // namespace sim

using namespace sim;

struct os_kmem_cache {
    std::size_t size;
    unsigned pools;
};

struct os_mempool {
    os_kmem_cache *cache;
    std::uint64_t out;  // elements not yet given back
};

extern "C" {

void *os_kmalloc(size_t size, os_gfp gfp) {
    if (!may_allocate(gfp, "os_kmalloc"))
        return nullptr;
    return mem_alloc(Kind::kKmalloc, size, __builtin_return_address(0));
}

void *os_kzalloc(size_t size, os_gfp gfp) {
    if (!may_allocate(gfp, "os_kzalloc"))
        return nullptr;
    void *p = mem_alloc(Kind::kKmalloc, size, __builtin_return_address(0));
    return std::memset(p, 0, size);
}

void os_kfree(void *p) {
    if (p)
        mem_free(Kind::kKmalloc, p, "os_kfree");
}

void *os_vmalloc(size_t size) {
    if (!may_allocate(OS_GFP_KERNEL, "os_vmalloc"))
        return nullptr;
    return mem_alloc(Kind::kVmalloc, size, __builtin_return_address(0));
}

void os_vfree(void *p) {
    might_sleep("os_vfree");
    if (p)
        mem_free(Kind::kVmalloc, p, "os_vfree");
}

struct os_kmem_cache *os_kmem_cache_create(const char *name, size_t size, size_t align) {
    (void)name;
    if (align > alignof(max_align_t))
        fail("os_kmem_cache_create: alignment %zu", align);
    if (!may_allocate(OS_GFP_KERNEL, "os_kmem_cache_create"))
        return nullptr;
    void *p = mem_alloc(Kind::kCache, sizeof(os_kmem_cache), __builtin_return_address(0));
    return new (p) os_kmem_cache{size, 0};
}

void os_kmem_cache_destroy(struct os_kmem_cache *cache) {
    might_sleep("os_kmem_cache_destroy");
    mem_check(Kind::kCache, cache, "os_kmem_cache_destroy");
    if (cache->pools)
        fail("os_kmem_cache_destroy: %u pools still use the cache", cache->pools);
    mem_free(Kind::kCache, cache, "os_kmem_cache_destroy");
}

struct os_mempool *os_mempool_create_slab(int reserve, struct os_kmem_cache *cache) {
    (void)reserve;
    mem_check(Kind::kCache, cache, "os_mempool_create_slab");
    if (!may_allocate(OS_GFP_KERNEL, "os_mempool_create_slab"))
        return nullptr;
    cache->pools++;
    void *p = mem_alloc(Kind::kPool, sizeof(os_mempool), __builtin_return_address(0));
    return new (p) os_mempool{cache, 0};
}

void os_mempool_destroy(struct os_mempool *pool) {
    might_sleep("os_mempool_destroy");
    mem_check(Kind::kPool, pool, "os_mempool_destroy");
    if (pool->out)
        fail("os_mempool_destroy: %llu elements were not given back",
             static_cast<unsigned long long>(pool->out));
    pool->cache->pools--;
    mem_free(Kind::kPool, pool, "os_mempool_destroy");
}

void *os_mempool_alloc(struct os_mempool *pool, os_gfp gfp) {
    mem_check(Kind::kPool, pool, "os_mempool_alloc");
    if (!may_allocate(gfp, "os_mempool_alloc"))
        return nullptr;
    pool->out++;
    return mem_alloc(Kind::kObject, pool->cache->size, __builtin_return_address(0));
}

void os_mempool_free(void *element, struct os_mempool *pool) {
    mem_check(Kind::kPool, pool, "os_mempool_free");
    if (!element)
        return;
    if (pool->out == 0)
        fail("os_mempool_free: the element is not of this pool");
    mem_free(Kind::kObject, element, "os_mempool_free");
    pool->out--;
}

struct os_page *os_alloc_page(os_gfp gfp) {
    if (!may_allocate(gfp, "os_alloc_page"))
        return nullptr;
    void *p = mem_alloc_bare(Kind::kPage, sizeof(os_page), __builtin_return_address(0));
    auto *page = static_cast<os_page *>(p);
    page->magic = kPageMagic;
    page->submitters = 0;
    page->data = nullptr;
    return page;
}

void os_free_page(struct os_page *page) {
    if (!page)
        return;
    page_check(page, "os_free_page");
    if (page->submitters)
        fail("os_free_page: the page belongs to the submitter of a request");
    page->magic = 0;
    mem_free(Kind::kPage, page, "os_free_page");
}

void *os_page_address(struct os_page *page) {
    page_check(page, "os_page_address");
    return page_data(page);
}

}  // extern "C"
