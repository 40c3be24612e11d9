// tests/fuzz/readers/one_task.cpp: a kernel of one task that never sleeps, as much as readers need
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/fuzz/readers/one_task.h"

#include <os_embedded.h>
#include <sanitizer/asan_interface.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "os/bio.h"
#include "os/log.h"
#include "os/memory.h"
#include "os/task.h"
#include "os/wait.h"

// The one device; its bytes are the caller's.
struct os_bdev {
    std::span<const std::uint8_t> bytes;
};

struct os_page {
    std::uint8_t bytes[OS_PAGE_SIZE];
};

struct os_bio {
    os_bdev *bdev;
    os_page *page;
    std::uint64_t sector;
    std::uint32_t length;
    std::uint32_t offset;
    os_bio_end_io_fn end_io;
    void *data;
    bool uptodate;
};

namespace {

constexpr os_dev_t kDev = 8u << 20 | 16u;

// A piece of memory that was not freed yet. They are noted here and not in front of the memory, where
// AddressSanitizer has its own bounds.
struct Live {
    void *at;
    std::size_t size;
};

// The one piece of its kind that a reader has at a time: the same memory for all runs, which only its
// owner may touch. A reader takes a page and a bio for each block.
template <typename T> struct Single {
    T is;
    bool taken;
};
constinit Single<os_page> the_page{};
constinit Single<os_bio> the_bio{};

// Everything that one run counts.
struct Run {
    os_bdev disk;
    one_task::Faults faults;
    std::uint64_t allocations, reads, live_bytes;
    std::size_t live_count;
    Live live[32];
};
constinit Run run{};
std::string replay;

[[noreturn]] __attribute__((format(printf, 1, 2))) void die(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fprintf(stderr, "%s%s\n", replay.empty() ? "" : "\nreplay: ", replay.c_str());
    std::abort();
}

bool allocation_fails() {
    return ++run.allocations == run.faults.allocation;
}

template <typename T> T *take(Single<T> *single) {
    if (allocation_fails())
        return nullptr;
    if (single->taken)
        die("a second page or bio at a time");
    single->taken = true;
    ASAN_UNPOISON_MEMORY_REGION(&single->is, sizeof single->is);
    return &single->is;
}

template <typename T> void put(Single<T> *single, const T *is) {
    if (!single->taken || is != &single->is)
        die("gave back what is not taken");
    single->taken = false;
    ASAN_POISON_MEMORY_REGION(&single->is, sizeof single->is);
}

void *allocate(std::size_t size) {
    if (allocation_fails())
        return nullptr;
    run.live_bytes += size;
    if (run.live_bytes > 2 * run.disk.bytes.size() + one_task::kMostMemoryBesidesDisk)
        die("more memory than any reader needs: %zu bytes more", size);
    if (run.live_count == std::size(run.live))
        die("more pieces of memory than any reader needs");
    void *p = std::malloc(size);
    if (p == nullptr)
        die("no memory for the test itself");
    run.live[run.live_count++] = {p, size};
    return p;
}

void release(void *p) {
    if (p == nullptr)
        return;
    for (std::size_t i = run.live_count; i > 0; --i) {
        if (run.live[i - 1].at != p)
            continue;
        run.live_bytes -= run.live[i - 1].size;
        run.live[i - 1] = run.live[--run.live_count];
        std::free(p);
        return;
    }
    die("freed memory that is not allocated");
}

// The disk's answer: 0 or a negative errno.
int transfer(const os_bio &bio) {
    if (++run.reads > one_task::kMostReads)
        die("reads without end");
    if (run.reads == run.faults.read)
        return -EIO;
    const std::uint64_t size = bio.bdev->bytes.size();
    if (bio.length % OS_SECTOR_SIZE != 0 || bio.sector > size / OS_SECTOR_SIZE ||
        size - bio.sector * OS_SECTOR_SIZE < bio.length)
        return -EIO;
    std::memcpy(bio.page->bytes + bio.offset, bio.bdev->bytes.data() + bio.sector * OS_SECTOR_SIZE,
                bio.length);
    return 0;
}

}  // namespace

namespace one_task {

os_bdev *begin(std::span<const std::uint8_t> disk, const Faults &faults) {
    run.disk = {disk};
    run.faults = faults;
    run.allocations = run.reads = run.live_bytes = run.live_count = 0;
    return &run.disk;
}

void set_replay(std::string line) {
    replay = std::move(line);
}

void end() {
    if (run.live_count != 0 || the_page.taken || the_bio.taken)
        die("%zu pieces of memory left, %d pages, %d bios", run.live_count, the_page.taken,
            the_bio.taken);
}

}  // namespace one_task

extern "C" {

// ---- memory --------------------------------------------------------------------------------------

void *os_kmalloc(size_t size, os_gfp) {
    return allocate(size);
}
void *os_kzalloc(size_t size, os_gfp) {
    void *p = allocate(size);
    return p != nullptr ? std::memset(p, 0, size) : nullptr;
}
void os_kfree(void *p) {
    release(p);
}
void *os_vmalloc(size_t size) {
    return allocate(size);
}
void os_vfree(void *p) {
    release(p);
}
os_page *os_alloc_page(os_gfp) {
    return take(&the_page);
}
void os_free_page(os_page *page) {
    put(&the_page, page);
}
void *os_page_address(os_page *page) {
    return page->bytes;
}

// ---- the disk ------------------------------------------------------------------------------------

os_dev_t os_bdev_dev(const os_bdev *) {
    return kDev;
}
uint64_t os_bdev_size(const os_bdev *bdev) {
    return bdev->bytes.size();
}
os_queue *os_bdev_queue(const os_bdev *) {
    return nullptr;
}
void os_queue_unplug(os_queue *) {}

os_bio *os_bio_alloc(os_gfp, uint32_t max_vecs) {
    if (max_vecs != 1)
        die("a bio of %u pieces", max_vecs);
    os_bio *bio = take(&the_bio);
    if (bio != nullptr)
        *bio = {};
    return bio;
}
void os_bio_put(os_bio *bio) {
    put(&the_bio, bio);
}
void os_bio_reset(os_bio *bio) {
    *bio = {};
}
bool os_bio_add_page(os_bio *bio, os_page *page, uint32_t len, uint32_t offset) {
    if (len > OS_PAGE_SIZE || offset > OS_PAGE_SIZE - len)
        die("%u bytes of a page from %u", len, offset);
    if (bio->page != nullptr)
        return false;
    bio->page = page;
    bio->length = len;
    bio->offset = offset;
    return true;
}
void os_bio_set_bdev(os_bio *bio, os_bdev *bdev) {
    bio->bdev = bdev;
}
void os_bio_set_sector(os_bio *bio, uint64_t sector) {
    bio->sector = sector;
}
void os_bio_set_end_io(os_bio *bio, os_bio_end_io_fn fn) {
    bio->end_io = fn;
}
void os_bio_set_private(os_bio *bio, void *data) {
    bio->data = data;
}
void *os_bio_private(const os_bio *bio) {
    return bio->data;
}
bool os_bio_uptodate(const os_bio *bio) {
    return bio->uptodate;
}
void os_submit_bio(uint32_t rw, os_bio *bio) {
    if (rw != 0)
        die("a reader wrote");
    const int rc = transfer(*bio);
    bio->uptodate = rc == 0;
    bio->end_io(bio, rc);
}
void os_init_completion(os_completion *done) {
    *done = {};
}
void os_complete(os_completion *done) {
    done->done = 1;
}
void os_wait_for_completion(os_completion *done) {
    if (done->done == 0)
        die("waits for what never comes");
    done->done = 0;
}

// ---- the task and the log ------------------------------------------------------------------------

void os_cond_resched(void) {}
int os_current_pid(void) {
    return 1;
}
bool os_in_interrupt(void) {
    return false;
}
void os_bug(const char *file, int line, const char *condition) {
    die("%s:%d: %s", file, line, condition);
}

int os_vsnprintf(char *buf, size_t size, const char *fmt, va_list args) {
    return std::vsnprintf(buf, size, fmt, args);
}
int os_snprintf(char *buf, size_t size, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int length = std::vsnprintf(buf, size, fmt, args);
    va_end(args);
    return length;
}
// Messages are formed to their last byte and forgotten.
void os_printk(const char *fmt, ...) {
    char text[2304];
    va_list args;
    va_start(args, fmt);
    if (std::vsnprintf(text, sizeof text, fmt, args) < 0)
        die("bad format %s", fmt);
    va_end(args);
}

}  // extern "C"

// ---- what a reader must not reach ------------------------------------------------------------------

// The helpers for files lie in one unit with those for disks and are linked, never called.
#define NOT_FOR_READERS(name)                                                                      \
    extern "C" __attribute__((used)) void not_for_readers_##name() __asm__(#name);                 \
    void not_for_readers_##name() {                                                                \
        die(#name "() in a reader");                                                               \
    }
NOT_FOR_READERS(os_blkdev_put)
NOT_FOR_READERS(os_dentry_ino)
NOT_FOR_READERS(os_dentry_inode)
NOT_FOR_READERS(os_dentry_name)
NOT_FOR_READERS(os_dentry_positive)
NOT_FOR_READERS(os_dentry_sb_dev)
NOT_FOR_READERS(os_dput)
NOT_FOR_READERS(os_drop_super)
NOT_FOR_READERS(os_filp_close)
NOT_FOR_READERS(os_filp_open)
NOT_FOR_READERS(os_get_super)
NOT_FOR_READERS(os_lookup_hash)
NOT_FOR_READERS(os_open_by_devnum)
NOT_FOR_READERS(os_parent_last_has_tail)
NOT_FOR_READERS(os_parent_last_is_normal)
NOT_FOR_READERS(os_parent_lock)
NOT_FOR_READERS(os_parent_put)
NOT_FOR_READERS(os_parent_unlock)
NOT_FOR_READERS(os_path_lookup)
NOT_FOR_READERS(os_path_parent)
NOT_FOR_READERS(os_vfs_fsync)
NOT_FOR_READERS(os_vfs_mknod)
NOT_FOR_READERS(os_vfs_read)
NOT_FOR_READERS(os_vfs_unlink)
NOT_FOR_READERS(os_vfs_write)
NOT_FOR_READERS(os_vfs_write_pages)
