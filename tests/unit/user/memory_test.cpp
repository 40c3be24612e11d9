// tests/unit/user/memory_test.cpp: what holds when the heap is empty
// SPDX-License-Identifier: GPL-2.0-only
#include "os/memory.h"

#include <thread>

#include "os/bio.h"
#include "os/user/memory.h"
#include "user_testing.h"

namespace {

using user_testing::eventually;

class HeapIsEmpty {
  public:
    HeapIsEmpty() { user::heap_is_empty = true; }
    ~HeapIsEmpty() { user::heap_is_empty = false; }
};

struct Pool {
    os_kmem_cache *cache = os_kmem_cache_create("test", 72, 8);
    os_mempool *pool = os_mempool_create_slab(3, cache);
    ~Pool() {
        os_mempool_destroy(pool);
        os_kmem_cache_destroy(cache);
    }
};

TEST(user_memory, every_allocation_fails_when_the_heap_is_empty) {
    HeapIsEmpty empty;
    EXPECT_EQ(os_kmalloc(8, OS_GFP_KERNEL), nullptr);
    EXPECT_EQ(os_kzalloc(8, OS_GFP_ATOMIC), nullptr);
    EXPECT_EQ(os_vmalloc(8), nullptr);
    EXPECT_EQ(os_alloc_page(OS_GFP_NOIO), nullptr);
    EXPECT_EQ(os_bio_alloc(OS_GFP_NOIO, 1), nullptr);
}

TEST(user_memory, sizes_that_no_machine_has_fail) {
    EXPECT_EQ(os_kmalloc(SIZE_MAX - 5, OS_GFP_KERNEL), nullptr);
    EXPECT_EQ(os_vmalloc(SIZE_MAX / 2 + 1), nullptr);
    EXPECT_EQ(os_kzalloc(SIZE_MAX, OS_GFP_KERNEL), nullptr);
}

TEST(user_memory, pages_lie_at_page_boundaries_and_zeroed_memory_is_zero) {
    os_page *page = os_alloc_page(OS_GFP_KERNEL);
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(os_page_address(page)) % OS_PAGE_SIZE, 0u);
    memset(os_page_address(page), 0xa5, OS_PAGE_SIZE);
    os_free_page(page);
    auto *zeroed = static_cast<unsigned char *>(os_kzalloc(5000, OS_GFP_KERNEL));
    ASSERT_NE(zeroed, nullptr);
    EXPECT_TRUE(std::all_of(zeroed, zeroed + 5000, [](unsigned char c) { return c == 0; }));
    os_kfree(zeroed);
    os_kfree(nullptr);
    os_vfree(nullptr);
}

TEST(user_memory, a_pool_serves_its_reserve_when_the_heap_is_empty) {
    Pool p;
    void *one = os_mempool_alloc(p.pool, OS_GFP_NOIO);
    HeapIsEmpty empty;
    void *reserve[3];
    for (void *&element : reserve) {
        element = os_mempool_alloc(p.pool, OS_GFP_ATOMIC);
        ASSERT_NE(element, nullptr);
        memset(element, 1, 72);
    }
    EXPECT_EQ(os_mempool_alloc(p.pool, OS_GFP_ATOMIC), nullptr);
    os_mempool_free(one, p.pool);  // refills the reserve
    void *again = os_mempool_alloc(p.pool, OS_GFP_ATOMIC);
    EXPECT_EQ(again, one);
    os_mempool_free(again, p.pool);
    for (void *element : reserve)
        os_mempool_free(element, p.pool);
}

TEST(user_memory, an_allocation_that_may_wait_gets_the_next_element_that_is_freed) {
    Pool p;
    HeapIsEmpty empty;
    void *held[3];
    for (void *&element : held)
        element = os_mempool_alloc(p.pool, OS_GFP_ATOMIC);
    std::atomic<void *> got{nullptr};
    std::thread waiter([&] { got = os_mempool_alloc(p.pool, OS_GFP_NOIO); });
    EXPECT_EQ(got.load(), nullptr);
    os_mempool_free(held[1], p.pool);
    waiter.join();
    EXPECT_EQ(got.load(), held[1]);
    os_mempool_free(held[0], p.pool);
    os_mempool_free(got, p.pool);
    os_mempool_free(held[2], p.pool);
}

TEST(user_memory, a_pool_without_memory_for_its_reserve_is_not_made) {
    os_kmem_cache *cache = os_kmem_cache_create("test", 64, 64);
    {
        HeapIsEmpty empty;
        EXPECT_EQ(os_mempool_create_slab(1, cache), nullptr);
    }
    os_kmem_cache_destroy(cache);
    EXPECT_EQ(os_kmem_cache_create("odd", 64, 24), nullptr);
}

}  // namespace
