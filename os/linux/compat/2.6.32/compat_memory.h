// os/linux/compat/2.6.32/compat_memory.h: memory of kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
//
// vmalloc of this kernel puts an area into its list even where it had no pages for it and has freed it: the
// next one that walks the list reads and writes what is another's. So the pages are taken here, and vmap,
// which fails in order, makes an area of them.
#ifndef TRAK_COMPAT_MEMORY_H
#define TRAK_COMPAT_MEMORY_H

#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/vmalloc.h>

// The pages of one area; known to the first of them.
struct compat_pages {
    size_t count;
    struct page *page[];
};

static void compat_vfree(void *p);

static void compat_free_pages(struct compat_pages *all) {
    while (all->count)
        __free_page(all->page[--all->count]);
    if (is_vmalloc_addr(all))
        compat_vfree(all);
    else
        kfree(all);
}

static void *compat_vmalloc(size_t size, gfp_t gfp) {
    const size_t count = (size >> PAGE_SHIFT) + ((size & ~PAGE_MASK) != 0);
    const size_t bytes = sizeof(struct compat_pages) + count * sizeof(struct page *);
    struct compat_pages *all;
    void *area;

    if (!count || count > totalram_pages)
        return NULL;
    all = bytes > PAGE_SIZE ? compat_vmalloc(bytes, gfp) : kmalloc(bytes, gfp);
    if (!all)
        return NULL;
    for (all->count = 0; all->count < count; all->count++) {
        all->page[all->count] = alloc_page(gfp);
        if (!all->page[all->count])
            goto fail;
    }
    area = vmap(all->page, count, VM_MAP, PAGE_KERNEL);
    if (!area)
        goto fail;
    set_page_private(all->page[0], (unsigned long)all);
    return area;
fail:
    compat_free_pages(all);
    return NULL;
}

static void compat_vfree(void *p) {
    struct page *first;

    if (!p)
        return;
    first = vmalloc_to_page(p);
    vunmap(p);
    compat_free_pages((struct compat_pages *)page_private(first));
}

#endif
