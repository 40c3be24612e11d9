// os/user/bio.cpp: making, cloning and ending requests, and sending them to their device
// SPDX-License-Identifier: GPL-2.0-only
#include "os/user/bio.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "os/log.h"
#include "os/user/device.h"
#include "os/user/memory.h"
#include "os/user/task.h"

namespace {

void free_bio(os_bio *bio) {
    bio->~os_bio();
    free(bio);
}

void report_beyond_end(const os_bio *bio, std::uint64_t sectors) {
    os_printk("<6>attempt to access beyond end of device: (%u, %u) rw=%u, sector=%llu, size=%u, "
              "limit=%llu\n",
              os_major(bio->bdev->dev), os_minor(bio->bdev->dev), bio->rw & OS_BIO_WRITE,
              static_cast<unsigned long long>(bio->sector), bio->size,
              static_cast<unsigned long long>(sectors));
}

}  // namespace

extern "C" {

os_bio *os_bio_alloc(os_gfp gfp, uint32_t max_vecs) {
    static_assert(sizeof(os_bio) % alignof(iovec) == 0 && sizeof(os_bio_vec) == alignof(iovec) * 2);
    if (gfp != OS_GFP_ATOMIC)
        user::may_sleep_here("allocation that may sleep");
    if (user::heap_is_empty.load(std::memory_order_relaxed))
        return nullptr;
    size_t room = size_t{max_vecs} * (sizeof(os_bio_vec) + sizeof(iovec));
    void *memory = malloc(sizeof(os_bio) + room);
    if (!memory)
        return nullptr;
    os_bio *bio = new (memory) os_bio;
    bio->max_vecs = max_vecs;
    bio->destructor = free_bio;
    return bio;
}

os_bio *os_bio_clone(os_bio *bio, os_gfp gfp) {
    os_bio *clone = os_bio_alloc(gfp, bio->vcnt);
    if (!clone)
        return nullptr;
    clone->bdev = bio->bdev;
    clone->sector = bio->sector;
    clone->size = bio->size;
    clone->rw = bio->rw;
    clone->idx = bio->idx;
    clone->vcnt = bio->vcnt;
    memcpy(clone->vecs(), bio->vecs(), bio->vcnt * sizeof(os_bio_vec));
    return clone;
}

void os_bio_reset(os_bio *bio) {
    bio->bdev = nullptr;
    bio->sector = 0;
    bio->size = 0;
    bio->rw = 0;
    bio->idx = 0;
    bio->uptodate = false;
    bio->vcnt = 0;
    bio->data = nullptr;
    bio->end_io = nullptr;
    bio->destructor = free_bio;
}

void os_bio_put(os_bio *bio) {
    if (bio->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        bio->destructor(bio);
}

bool os_bio_add_page(os_bio *bio, os_page *page, uint32_t len, uint32_t offset) {
    if (bio->vcnt == bio->max_vecs || offset > OS_PAGE_SIZE || len > OS_PAGE_SIZE - offset ||
        bio->size > UINT32_MAX - len)
        return false;
    bio->vecs()[bio->vcnt++] = {page, len, offset};
    bio->size += len;
    return true;
}

uint64_t os_bio_sector(const os_bio *bio) {
    return bio->sector;
}
void os_bio_set_sector(os_bio *bio, uint64_t sector) {
    bio->sector = sector;
}
uint32_t os_bio_size(const os_bio *bio) {
    return bio->size;
}
uint32_t os_bio_rw(const os_bio *bio) {
    return bio->rw;
}
void os_bio_set_rw(os_bio *bio, uint32_t rw) {
    bio->rw = rw;
}
os_bdev *os_bio_bdev(const os_bio *bio) {
    return bio->bdev;
}
void os_bio_set_bdev(os_bio *bio, os_bdev *bdev) {
    bio->bdev = bdev;
}
void *os_bio_private(const os_bio *bio) {
    return bio->data;
}
void os_bio_set_private(os_bio *bio, void *data) {
    bio->data = data;
}
os_bio_end_io_fn os_bio_end_io(const os_bio *bio) {
    return bio->end_io;
}
void os_bio_set_end_io(os_bio *bio, os_bio_end_io_fn fn) {
    bio->end_io = fn;
}
os_bio_destructor_fn os_bio_destructor(const os_bio *bio) {
    return bio->destructor;
}
void os_bio_set_destructor(os_bio *bio, os_bio_destructor_fn fn) {
    bio->destructor = fn;
}
uint32_t os_bio_vcnt(const os_bio *bio) {
    return bio->vcnt;
}
os_bio_vec os_bio_vec_at(const os_bio *bio, uint32_t index) {
    return const_cast<os_bio *>(bio)->vecs()[index];
}
uint16_t os_bio_idx(const os_bio *bio) {
    return bio->idx;
}
void os_bio_set_idx(os_bio *bio, uint16_t idx) {
    bio->idx = idx;
}
bool os_bio_uptodate(const os_bio *bio) {
    return bio->uptodate;
}

void os_bio_endio(os_bio *bio, int error) {
    bio->uptodate = error == 0;
    user::leave_nodes(bio);
    if (bio->end_io)
        bio->end_io(bio, error);
}

void os_generic_make_request(os_bio *bio) {
    user::may_sleep_here("os_generic_make_request");
    os_bdev *bdev = bio->bdev;
    if (!bdev) {
        os_bio_endio(bio, -EIO);
        return;
    }
    uint64_t sectors = os_bdev_size(bdev) >> OS_SECTOR_SHIFT;
    uint64_t count = (uint64_t{bio->size} + OS_SECTOR_SIZE - 1) >> OS_SECTOR_SHIFT;
    if (count && (count > sectors || bio->sector > sectors - count)) {
        report_beyond_end(bio, sectors);
        os_bio_endio(bio, -EIO);
        return;
    }
    os_queue *queue = os_bdev_queue(bdev);
    user::Limits limits = queue ? queue->limits.load() : user::Limits{};
    if (((bio->rw & OS_BIO_DISCARD) && !limits.discard) ||
        ((bio->rw & OS_BIO_ZEROES) && !limits.zeroes))
        os_bio_endio(bio, -EOPNOTSUPP);
    else if (!user::is_node(bdev))
        user::submit_to_backing(bdev, bio);
    else if (!queue || !queue->make_request)
        os_bio_endio(bio, -EIO);
    else if (const int rc = user::enter_node(bio, bdev->disk))
        os_bio_endio(bio, rc);
    else
        queue->make_request(queue, bio);
}

void os_submit_bio(uint32_t rw, os_bio *bio) {
    bio->rw |= rw;
    os_generic_make_request(bio);
}

}  // extern "C"
