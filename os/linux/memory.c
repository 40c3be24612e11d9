// os/linux/memory.c: memory of the kernel, caches, pools and pages
// SPDX-License-Identifier: GPL-2.0-only
//
// The driver says itself what it got no memory for, so the allocator is asked to keep quiet.
#include "os/memory.h"

#include <linux/mempool.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/vmalloc.h>

#include <compat_memory.h>

#include "os/linux/gfp.h"

void *os_kmalloc(size_t size, os_gfp gfp) {
    return kmalloc(size, os_linux_gfp(gfp));
}

void *os_kzalloc(size_t size, os_gfp gfp) {
    return kzalloc(size, os_linux_gfp(gfp));
}

void os_kfree(void *p) {
    kfree(p);
}

void *os_vmalloc(size_t size) {
    return compat_vmalloc(size, os_linux_gfp(OS_GFP_KERNEL));
}

void os_vfree(void *p) {
    compat_vfree(p);
}

struct os_kmem_cache *os_kmem_cache_create(const char *name, size_t size, size_t align) {
    return (struct os_kmem_cache *)kmem_cache_create(name, size, align, 0, NULL);
}

void os_kmem_cache_destroy(struct os_kmem_cache *cache) {
    kmem_cache_destroy((struct kmem_cache *)cache);
}

struct os_mempool *os_mempool_create_slab(int reserve, struct os_kmem_cache *cache) {
    return (struct os_mempool *)mempool_create_slab_pool(reserve, (struct kmem_cache *)cache);
}

void os_mempool_destroy(struct os_mempool *pool) {
    mempool_destroy((mempool_t *)pool);
}

void *os_mempool_alloc(struct os_mempool *pool, os_gfp gfp) {
    return mempool_alloc((mempool_t *)pool, os_linux_gfp(gfp));
}

void os_mempool_free(void *element, struct os_mempool *pool) {
    if (element)
        mempool_free(element, (mempool_t *)pool);
}

struct os_page *os_alloc_page(os_gfp gfp) {
    return (struct os_page *)alloc_page(os_linux_gfp(gfp));
}

void os_free_page(struct os_page *page) {
    __free_page((struct page *)page);
}

void *os_page_address(struct os_page *page) {
    return page_address((struct page *)page);
}
