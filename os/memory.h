// os/memory.h: memory of the kernel, caches, pools and pages
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_MEMORY_H
#define TRAK_OS_MEMORY_H

#include "os/base.h"

OS_BEGIN

/* How an allocation may wait. KERNEL: may sleep and start I/O. NOIO: may sleep, starts no I/O.
 * ATOMIC: never sleeps. */
typedef uint32_t os_gfp;
enum { OS_GFP_ATOMIC = 0, OS_GFP_NOIO = 1, OS_GFP_KERNEL = 2 };

/* Context of every call here: sleep, or atomic/any with OS_GFP_ATOMIC; frees: any (os_vfree:
 * sleep). Null on failure. Memory is aligned for any type. Freeing null does nothing. */
void *os_kmalloc(size_t size, os_gfp gfp) OS_MUST_CHECK;
void *os_kzalloc(size_t size, os_gfp gfp) OS_MUST_CHECK;
void os_kfree(void *p);

/* Virtually contiguous memory for large buffers. Context: sleep. */
void *os_vmalloc(size_t size) OS_MUST_CHECK;
void os_vfree(void *p);

/* Caches of equal objects, and pools that keep `reserve` of them back, so that an allocation that
 * may wait (KERNEL, NOIO) is served when memory is short. It may still fail in the simulator. */
struct os_kmem_cache;
struct os_mempool;
struct os_kmem_cache *os_kmem_cache_create(const char *name, size_t size,
                                           size_t align) OS_MUST_CHECK;
void os_kmem_cache_destroy(struct os_kmem_cache *cache);
struct os_mempool *os_mempool_create_slab(int reserve, struct os_kmem_cache *cache) OS_MUST_CHECK;
void os_mempool_destroy(struct os_mempool *pool);
void *os_mempool_alloc(struct os_mempool *pool, os_gfp gfp) OS_MUST_CHECK;
void os_mempool_free(void *element, struct os_mempool *pool);

/* One page of OS_PAGE_SIZE bytes, always addressable. Pages that come with a bio may belong to
 * the submitter; only pages from os_alloc_page go to os_free_page. */
struct os_page;
struct os_page *os_alloc_page(os_gfp gfp) OS_MUST_CHECK;
void os_free_page(struct os_page *page);
void *os_page_address(struct os_page *page);

OS_END

#endif
