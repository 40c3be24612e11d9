// tests/vm/contract/memory.c: os/memory.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/memory.h"

#include "tests/vm/contract/contract.h"

static bool is_filled_with(const unsigned char *bytes, unsigned char value, size_t size) {
    return bytes[0] == value && memcmp(bytes, bytes + 1, size - 1) == 0;
}

static void zeroed_memory_is_zero_and_aligned(void) {
    static const size_t sizes[] = {8, 100, 2048, 40000};
    void *p, *q;
    int i;

    for (i = 0; i < ARRAY_SIZE(sizes); i++) {
        /* What was used before is the likeliest to come back. */
        q = os_kmalloc(sizes[i], OS_GFP_KERNEL);
        ASSERT(q);
        memset(q, 0xaa, sizes[i]);
        os_kfree(q);
        p = os_kzalloc(sizes[i], OS_GFP_NOIO);
        ASSERT(p);
        EXPECT(is_filled_with(p, 0, sizes[i]));
        EXPECT(IS_ALIGNED((unsigned long)p, 8));
        os_kfree(p);
    }
}

static void freeing_null_does_nothing(void) {
    os_kfree(NULL);
    os_vfree(NULL);
}

static void absurd_sizes_give_null_and_no_warning(void) {
    void *volatile none; /* so that no compiler sees through the sizes */

    none = os_kmalloc((size_t)1 << 40, OS_GFP_KERNEL);
    EXPECT(!none);
    none = os_kzalloc(((size_t)1 << 40) + 1, OS_GFP_ATOMIC);
    EXPECT(!none);
    none = os_vmalloc((size_t)1 << 46);
    EXPECT(!none);
}

static void large_buffers_hold_what_is_written(void) {
    size_t size = (8 << 20) + 5;
    unsigned char *p = os_vmalloc(size);

    ASSERT(p);
    memset(p, 0x5a, size);
    EXPECT(is_filled_with(p, 0x5a, size));
    os_vfree(p);
}

static void allocate(void *arg) {
    *(void **)arg = os_kmalloc(64, OS_GFP_ATOMIC);
}

static void atomic_memory_is_had_in_interrupt_context(void) {
    void *p = NULL;

    contract_in_interrupt(allocate, &p);
    EXPECT(p);
    os_kfree(p);
}

static void a_pool_serves_objects_of_its_cache(void) {
    struct os_kmem_cache *cache = os_kmem_cache_create("contract_object", 200, 64);
    struct os_mempool *pool;
    void *elements[32];
    int i;

    ASSERT(cache);
    pool = os_mempool_create_slab(8, cache);
    if (EXPECT(pool)) {
        for (i = 0; i < 32; i++) {
            elements[i] = os_mempool_alloc(pool, i % 2 ? OS_GFP_NOIO : OS_GFP_ATOMIC);
            EXPECT(elements[i] && IS_ALIGNED((unsigned long)elements[i], 64));
            if (elements[i])
                memset(elements[i], i, 200);
        }
        for (i = 0; i < 32; i++) {
            EXPECT(!elements[i] || is_filled_with(elements[i], i, 200));
            os_mempool_free(elements[i], pool);
        }
        os_mempool_destroy(pool);
    }
    os_kmem_cache_destroy(cache);
}

static void a_page_is_addressable(void) {
    struct os_page *page = os_alloc_page(OS_GFP_NOIO);
    unsigned char *bytes;

    ASSERT(page);
    bytes = os_page_address(page);
    EXPECT(IS_ALIGNED((unsigned long)bytes, OS_PAGE_SIZE));
    memset(bytes, 0x33, OS_PAGE_SIZE);
    EXPECT(is_filled_with(bytes, 0x33, OS_PAGE_SIZE));
    os_free_page(page);
}

const struct contract_test memory_tests[] = {
    CONTRACT(memory, zeroed_memory_is_zero_and_aligned),
    CONTRACT(memory, freeing_null_does_nothing),
    CONTRACT(memory, absurd_sizes_give_null_and_no_warning),
    CONTRACT(memory, large_buffers_hold_what_is_written),
    CONTRACT(memory, atomic_memory_is_had_in_interrupt_context),
    CONTRACT(memory, a_pool_serves_objects_of_its_cache),
    CONTRACT(memory, a_page_is_addressable),
    {},
};
