// tests/contract/memory_contract.cpp: what os/memory.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <cstddef>
#include <cstring>
#include <set>

#include "tests/contract/platform.h"

namespace contract::memory_tests {

namespace {

bool aligned_for_all(const void *p) {
    return reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t) == 0;
}

constexpr os_lock_class kClass{"contract memory", 10};

}  // namespace

TEST(memory, kmalloc_gives_aligned_memory_of_its_own) {
    run([] {
        std::set<void *> seen;
        for (std::size_t size : {1u, 7u, 16u, 100u, 4096u, 70000u}) {
            void *p = os_kmalloc(size, OS_GFP_KERNEL);
            ASSERT_NE(p, nullptr);
            EXPECT_TRUE(aligned_for_all(p));
            EXPECT_TRUE(seen.insert(p).second);
            std::memset(p, 0x11, size);
        }
        for (void *p : seen)
            os_kfree(p);
    });
}

TEST(memory, kzalloc_gives_zeroes) {
    run([] {
        for (int round = 0; round < 3; round++) {
            auto *p = static_cast<unsigned char *>(os_kzalloc(5000, OS_GFP_NOIO));
            ASSERT_NE(p, nullptr);
            for (int i = 0; i < 5000; i++)
                ASSERT_EQ(p[i], 0);
            std::memset(p, 0xff, 5000);
            os_kfree(p);
        }
    });
}

TEST(memory, freeing_null_does_nothing) {
    run([] {
        os_kfree(nullptr);
        os_vfree(nullptr);
    });
}

TEST(memory, atomic_allocation_and_free_work_under_a_spin_lock) {
    run([] {
        os_spinlock lock;
        os_spin_lock_init(&lock, &kClass);
        os_spin_lock(&lock);
        void *p = os_kmalloc(100, OS_GFP_ATOMIC);
        void *zeroed = os_kzalloc(100, OS_GFP_ATOMIC);
        os_page *page = os_alloc_page(OS_GFP_ATOMIC);
        os_kfree(p);
        os_kfree(zeroed);
        if (page)
            os_free_page(page);
        os_spin_unlock(&lock);
    });
}

TEST(memory, vmalloc_gives_large_memory) {
    run([] {
        constexpr std::size_t kSize = 3 << 20;
        auto *p = static_cast<unsigned char *>(os_vmalloc(kSize));
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(aligned_for_all(p));
        p[0] = 1;
        p[kSize - 1] = 2;
        EXPECT_EQ(p[0] + p[kSize - 1], 3);
        os_vfree(p);
    });
}

TEST(memory, cache_and_pool_serve_objects_of_the_size) {
    run([] {
        os_kmem_cache *cache = os_kmem_cache_create("contract", 40, 8);
        ASSERT_NE(cache, nullptr);
        os_mempool *pool = os_mempool_create_slab(16, cache);
        ASSERT_NE(pool, nullptr);
        std::set<void *> objects;
        for (int i = 0; i < 100; i++) {
            void *object = os_mempool_alloc(pool, OS_GFP_NOIO);
            ASSERT_NE(object, nullptr);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(object) % 8, 0u);
            EXPECT_TRUE(objects.insert(object).second);
            std::memset(object, 0x22, 40);
        }
        for (void *object : objects)
            os_mempool_free(object, pool);
        os_mempool_destroy(pool);
        os_kmem_cache_destroy(cache);
    });
}

TEST(memory, pool_serves_its_reserve_without_waiting) {
    run([] {
        os_kmem_cache *cache = os_kmem_cache_create("contract", 64, 8);
        ASSERT_NE(cache, nullptr);
        os_mempool *pool = os_mempool_create_slab(4, cache);
        ASSERT_NE(pool, nullptr);
        os_spinlock lock;
        os_spin_lock_init(&lock, &kClass);
        void *objects[4];
        os_spin_lock(&lock);
        for (void *&object : objects)
            object = os_mempool_alloc(pool, OS_GFP_ATOMIC);
        for (void *object : objects) {
            EXPECT_NE(object, nullptr);
            os_mempool_free(object, pool);
        }
        os_spin_unlock(&lock);
        os_mempool_destroy(pool);
        os_kmem_cache_destroy(cache);
    });
}

TEST(memory, two_pools_may_share_a_cache) {
    run([] {
        os_kmem_cache *cache = os_kmem_cache_create("contract", 24, 8);
        ASSERT_NE(cache, nullptr);
        os_mempool *a = os_mempool_create_slab(2, cache), *b = os_mempool_create_slab(2, cache);
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        void *from_a = os_mempool_alloc(a, OS_GFP_KERNEL);
        void *from_b = os_mempool_alloc(b, OS_GFP_KERNEL);
        EXPECT_NE(from_a, from_b);
        os_mempool_free(from_a, a);
        os_mempool_free(from_b, b);
        os_mempool_destroy(a);
        os_mempool_destroy(b);
        os_kmem_cache_destroy(cache);
    });
}

TEST(memory, page_is_addressable_over_all_its_bytes) {
    run([] {
        os_page *a = os_alloc_page(OS_GFP_KERNEL), *b = os_alloc_page(OS_GFP_NOIO);
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        EXPECT_TRUE(aligned_for_all(os_page_address(a)));
        EXPECT_EQ(os_page_address(a), os_page_address(a));
        std::memset(os_page_address(a), 0x33, OS_PAGE_SIZE);
        std::memset(os_page_address(b), 0x44, OS_PAGE_SIZE);
        EXPECT_EQ(static_cast<unsigned char *>(os_page_address(a))[OS_PAGE_SIZE - 1], 0x33);
        EXPECT_EQ(static_cast<unsigned char *>(os_page_address(b))[0], 0x44);
        os_free_page(a);
        os_free_page(b);
    });
}

}  // namespace contract::memory_tests
