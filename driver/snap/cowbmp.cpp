// driver/snap/cowbmp.cpp: the bitmap of preserved chunks, in memory and in its file
// SPDX-License-Identifier: GPL-2.0-only
//
// Memory    an array of pages; a page is made when its first bit is set, and a page that loads as all
//           zero is not kept. Bits only ever go from 0 to 1.
// File      kept current one byte at a time: a bit that turns to 1 is followed by the write of its
//           byte before the call returns. The caller makes it durable.
// Runs      tests and sets share the lock for reading, sets being atomic; whoever places a page, loads
// together  or destroys holds it for writing.
#include "driver/snap/cowbmp.h"

#include "driver/block/lock_ranks.h"
#include "driver/module/log.h"
#include "driver/utils/atomic.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"

namespace {

constexpr int kPageShift = 15;  // bits of a page
constexpr std::uint32_t kPageMask = (1u << kPageShift) - 1;

std::int32_t page_count(std::uint64_t chunk_cnt) {
    return static_cast<std::int32_t>(static_cast<std::int64_t>(chunk_cnt - 1) >> kPageShift) + 1;
}

int page_bytes(std::int64_t left) {
    return left < OS_PAGE_SIZE ? static_cast<int>(left) : static_cast<int>(OS_PAGE_SIZE);
}

// Null where there is no memory, which is logged by the callers under their own names.
std::uint8_t **new_pages(std::int32_t page_cnt) {
    const std::size_t entries = page_cnt > 0 ? static_cast<std::size_t>(page_cnt) : 1;
    const std::size_t size = entries * sizeof(std::uint8_t *);
    auto **pages = static_cast<std::uint8_t **>(os_vmalloc(size));
    if (pages != nullptr)
        memset(pages, 0, size);
    return pages;
}

// Lock held for writing.
void free_pages(trak_cowbmp *bmp) {
    if (bmp->pages == nullptr)
        return;
    for (std::int32_t i = 0; i < bmp->page_cnt; ++i)
        os_kfree(bmp->pages[i]);
    os_vfree(bmp->pages);
    trak_write_once(bmp->pages, static_cast<std::uint8_t **>(nullptr));
}

bool is_initialised(const trak_cowbmp *bmp) {
    return bmp != nullptr && trak_read_once(bmp->pages) != nullptr;
}

// Reads one page after the other; `spare` is a buffer in hand, to be freed by the caller. Lock held
// for writing.
int read_pages(trak_cowbmp *bmp, trak_file *file, std::int64_t size, std::uint8_t **spare) {
    std::int64_t offset = 0;
    for (std::int32_t i = 0; i < bmp->page_cnt; ++i) {
        if (*spare == nullptr)
            *spare = static_cast<std::uint8_t *>(os_kmalloc(OS_PAGE_SIZE, OS_GFP_KERNEL));
        if (*spare == nullptr) {
            trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failed.", "trak_cowbmp_load");
            return -ENOMEM;
        }
        const int n = page_bytes(size - offset);
        const int rc = trak_fread(file, offset, *spare, n);
        if (rc != n) {
            trak_log(TRAK_LOG_ERROR, "%s(): Failed to read %d bytes from %s: rc=%d",
                     "trak_cowbmp_load", n, file->fname, rc);
            return -EIO;
        }
        if (!trak_bits_all_clear(*spare, static_cast<std::uint64_t>(n) * 8)) {
            memset(*spare + n, 0, static_cast<std::size_t>(OS_PAGE_SIZE - n));
            bmp->pages[i] = *spare;
            *spare = nullptr;
        }
        offset += n;
    }
    return 0;
}

// Replaces the bitmap by the file's contents. Lock held for writing.
int load_file(trak_cowbmp *bmp, trak_file *file) {
    const std::int64_t size = os_file_size(file->filp);
    free_pages(bmp);
    bmp->chunk_cnt = static_cast<std::uint64_t>(size) * 8;
    bmp->page_cnt = page_count(bmp->chunk_cnt);
    std::uint8_t **pages = new_pages(bmp->page_cnt);
    if (pages == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failed.", "trak_cowbmp_load");
        return -ENOMEM;
    }
    trak_write_once(bmp->pages, pages);
    std::uint8_t *spare = nullptr;
    const int rc = read_pages(bmp, file, size, &spare);
    os_kfree(spare);
    return rc;
}

// True for a chunk that the array has a place for; a file may have been shorter than the disk needs.
bool is_within(const trak_cowbmp *bmp, std::int32_t page) {
    return page >= 0 && page < bmp->page_cnt;
}

// Lock held, and the bitmap is initialised.
int test_locked(const trak_cowbmp *bmp, std::uint32_t chunk) {
    const auto p = static_cast<std::int32_t>(chunk >> kPageShift);
    const std::uint8_t *page = is_within(bmp, p) ? bmp->pages[p] : nullptr;
    return page != nullptr && trak_test_bit(page, chunk & kPageMask) ? 1 : 0;
}

// Sets the bit in its page and its byte in the file. Lock held.
int set_in_page(std::uint8_t *page, std::int32_t chunk, trak_file *file) {
    const std::uint32_t bit = static_cast<std::uint32_t>(chunk) & kPageMask;
    if (trak_test_and_set_bit(page, bit) || file == nullptr)
        return 0;
    const std::uint8_t byte = __atomic_load_n(page + (bit >> 3), __ATOMIC_RELAXED);
    if (trak_fwrite(file, chunk >> 3, &byte, 1) == 1)
        return 0;
    trak_log(TRAK_LOG_ERROR, "%s(): Failed to update changed byte in file.", "trak_cowbmp_set_bit");
    return -EIO;
}

}  // namespace

int trak_cowbmp_init(trak_cowbmp *bmp, std::uint64_t chunk_cnt) {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Allocating COW bitmap for %lld chunks",
              static_cast<long long>(chunk_cnt));
    zurwlock_init(&bmp->lock, &trak_rank_cowbmp);
    bmp->chunk_cnt = chunk_cnt;
    bmp->page_cnt = page_count(chunk_cnt);
    std::uint8_t **pages = new_pages(bmp->page_cnt);
    trak_write_once(bmp->pages, pages);
    if (pages == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        return -ENOMEM;
    }
    return 0;
}

int trak_cowbmp_load(trak_cowbmp *bmp, const char *path) {
    if (path == nullptr || path[0] == '\0' || bmp == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Internal error: invalid params.");
        return -EINVAL;
    }
    trak_logf(TRAK_LOG_COMMAND, "%s(): Loading COW bitmap from %s", path);
    const zuwrite_guard guard(&bmp->lock);
    trak_file *file = trak_fopen(path, OS_O_RDONLY, 0600);
    const int rc = file == nullptr ? -EIO : load_file(bmp, file);
    if (rc < 0)
        free_pages(bmp);
    if (file != nullptr)
        trak_fclose(file);
    return rc;
}

int trak_cowbmp_save(trak_cowbmp *bmp, const char *path) {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Saving COW bitmap into %s", path == nullptr ? "" : path);
    if (path == nullptr || path[0] == '\0' || !is_initialised(bmp)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Internal error: invalid params.");
        return -EINVAL;
    }
    const zuread_guard guard(&bmp->lock);
    trak_file *file = trak_fopen(path, OS_O_WRONLY | OS_O_CREAT | OS_O_TRUNC, 0600);
    if (file == nullptr)
        return -EIO;
    const std::int64_t length = trak_bitmap_bytes(bmp->chunk_cnt);
    const std::uint8_t zero = 0;
    // Gives the file its length; a failure shows in what follows.
    (void)!trak_fwrite(file, length - 1, &zero, 1);
    int rc = 0;
    for (std::int32_t i = 0; i < bmp->page_cnt && rc == 0; ++i) {
        const std::int64_t offset = static_cast<std::int64_t>(i) * OS_PAGE_SIZE;
        const int n = page_bytes(length - offset);
        if (bmp->pages[i] == nullptr)
            continue;
        const int written = trak_fwrite(file, offset, bmp->pages[i], n);
        if (written < n) {
            trak_logf(TRAK_LOG_ERROR, "%s(): Failed to write %d bytes into %s: rc=%d", n, path,
                      written);
            rc = -EIO;
        }
    }
    trak_fclose(file);
    return rc;
}

int trak_cowbmp_test_bit(trak_cowbmp *bmp, std::uint32_t chunk) {
    if (!is_initialised(bmp)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Uninitialized COW bitmap.");
        return -EINVAL;
    }
    const zuread_guard guard(&bmp->lock);
    return bmp->pages != nullptr ? test_locked(bmp, chunk) : -EINVAL;
}

std::int64_t trak_cowbmp_count_set(trak_cowbmp *bmp, std::uint64_t first, std::uint64_t last) {
    if (!is_initialised(bmp)) {
        trak_log(TRAK_LOG_ERROR, "%s(): Uninitialized COW bitmap.", "trak_cowbmp_test_bit");
        return -EINVAL;
    }
    const zuread_guard guard(&bmp->lock);
    if (bmp->pages == nullptr)
        return -EINVAL;
    std::int64_t count = 0;
    for (std::uint64_t chunk = first; chunk <= last; ++chunk)
        count += test_locked(bmp, static_cast<std::uint32_t>(chunk));
    return count;
}

int trak_cowbmp_set_bit(trak_cowbmp *bmp, std::int32_t chunk, os_gfp gfp, trak_file *file) {
    if (!is_initialised(bmp)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Uninitialized COW bitmap.");
        return -EINVAL;
    }
    const std::int32_t p = chunk >> kPageShift;
    {
        const zuread_guard guard(&bmp->lock);
        if (bmp->pages == nullptr || !is_within(bmp, p))
            return -EINVAL;
        if (bmp->pages[p] != nullptr)
            return set_in_page(bmp->pages[p], chunk, file);
    }
    auto *page = static_cast<std::uint8_t *>(os_kmalloc(OS_PAGE_SIZE, gfp));
    if (page == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        return -ENOMEM;
    }
    const zuwrite_guard guard(&bmp->lock);
    if (bmp->pages == nullptr) {
        os_kfree(page);
        return -EINVAL;
    }
    if (bmp->pages[p] == nullptr) {
        memset(page, 0, OS_PAGE_SIZE);
        bmp->pages[p] = page;
    } else {
        os_kfree(page);
    }
    return set_in_page(bmp->pages[p], chunk, file);
}

int trak_cowbmp_destroy(trak_cowbmp *bmp) {
    if (!is_initialised(bmp))
        return 0;
    const zuwrite_guard guard(&bmp->lock);
    free_pages(bmp);
    return 0;
}
