// os/sim/bio.cpp: block I/O requests
// SPDX-License-Identifier: GPL-2.0-only
//
// Every bio has one owner at a time (BioState). Changing one that a disk has, ending one twice,
// ending one that a disk has, and submitting one that ended and was not readied again are failures.
#include "os/bio.h"

#include <cstring>

#include "os/sim/disk.h"
#include "os/sim/page.h"

namespace sim {
namespace {

void bio_free(os_bio *bio) {
    bio->magic = 0;
    mem_free(Kind::kBio, bio, "the last os_bio_put");
}

// For calls that change it.
os_bio &changeable(os_bio *bio, const char *function) {
    bio_check(bio, function);
    if (bio->state == BioState::kWithDisk || bio->state == BioState::kQueued)
        fail("%s: the bio is under way", function);
    return *bio;
}

const os_bio &readable(const os_bio *bio, const char *function) {
    bio_check(bio, function);
    return *bio;
}

bool gfp_allows(os_gfp gfp, const char *function) {
    if (gfp != OS_GFP_ATOMIC)
        might_sleep(function);
    if (gfp == OS_GFP_KERNEL && self().in_make_request)
        fail("%s with OS_GFP_KERNEL on behalf of a request", function);
    point();
    return !fault(Fault::kAlloc);
}

}  // namespace

void bio_check(const os_bio *bio, const char *function) {
    mem_check(Kind::kBio, bio, function);
    if (bio->magic != kBioMagic)
        fail("%s: not a bio", function);
}

os_bio *bio_make(std::uint32_t max_vecs, bool own, const void *caller) {
    void *p = mem_alloc(Kind::kBio, sizeof(os_bio) + max_vecs * sizeof(os_bio_vec), caller);
    if (own)
        mem_own(p);
    std::memset(p, 0, sizeof(os_bio) + max_vecs * sizeof(os_bio_vec));
    auto *bio = static_cast<os_bio *>(p);
    bio->magic = kBioMagic;
    bio->refs = 1;
    bio->max_vecs = max_vecs;
    bio->destructor = bio_free;
    return bio;
}

void bio_end(os_bio *bio, int error) {
    bio->state = BioState::kEnded;
    bio->uptodate = error == 0;
    for (; bio->depth != 0; bio->depth--) {
        const auto &entry = bio->entered[bio->depth - 1];
        mem_check(Kind::kDisk, entry.disk, "the end of a request to a disk");
        entry.disk->under_way[entry.turn]--;
    }
    if (bio->end_io)
        bio->end_io(bio, error);
}

}  // namespace sim

using namespace sim;

extern "C" {

struct os_bio *os_bio_alloc(os_gfp gfp, uint32_t max_vecs) {
    if (!gfp_allows(gfp, "os_bio_alloc"))
        return nullptr;
    return bio_make(max_vecs, false, __builtin_return_address(0));
}

struct os_bio *os_bio_clone(struct os_bio *bio, os_gfp gfp) {
    bio_check(bio, "os_bio_clone");
    if (!gfp_allows(gfp, "os_bio_clone"))
        return nullptr;
    os_bio *clone = bio_make(bio->vcnt, false, __builtin_return_address(0));
    clone->clone = true;
    clone->rw = bio->rw;
    clone->size = bio->size;
    clone->sector = bio->sector;
    clone->bdev = bio->bdev;
    clone->idx = bio->idx;
    clone->vcnt = bio->vcnt;
    std::memcpy(clone->vecs, bio->vecs, bio->vcnt * sizeof(os_bio_vec));
    return clone;
}

void os_bio_reset(struct os_bio *bio) {
    changeable(bio, "os_bio_reset");
    if (bio->clone)
        fail("os_bio_reset: a clone");
    if (bio->refs != 1)
        fail("os_bio_reset: the bio has %u references", bio->refs);
    bio->state = BioState::kIdle;
    bio->uptodate = false;
    bio->rw = bio->size = 0;
    bio->sector = 0;
    bio->bdev = nullptr;
    bio->data = nullptr;
    bio->end_io = nullptr;
    bio->destructor = bio_free;
    bio->idx = 0;
    bio->vcnt = 0;
}

void os_bio_put(struct os_bio *bio) {
    bio_check(bio, "os_bio_put");
    if (bio->refs == 0)
        fail("os_bio_put: the bio has no reference left");
    if (--bio->refs)
        return;
    if (bio->state == BioState::kWithDisk || bio->state == BioState::kQueued)
        fail("os_bio_put: the last reference of a bio that is under way");
    if (!bio->destructor)
        fail("os_bio_put: the bio has no destructor");
    bio->destructor(bio);
}

bool os_bio_add_page(struct os_bio *bio, struct os_page *page, uint32_t len, uint32_t offset) {
    changeable(bio, "os_bio_add_page");
    page_check(page, "os_bio_add_page");
    if (len == 0 || offset > OS_PAGE_SIZE || len > OS_PAGE_SIZE - offset)
        fail("os_bio_add_page: %u bytes at %u of a page", len, offset);
    if (bio->vcnt == bio->max_vecs)
        return false;
    bio->vecs[bio->vcnt++] = {page, len, offset};
    bio->size += len;
    return true;
}

uint64_t os_bio_sector(const struct os_bio *bio) {
    return readable(bio, "os_bio_sector").sector;
}

void os_bio_set_sector(struct os_bio *bio, uint64_t sector) {
    changeable(bio, "os_bio_set_sector").sector = sector;
}

uint32_t os_bio_size(const struct os_bio *bio) {
    return readable(bio, "os_bio_size").size;
}

uint32_t os_bio_rw(const struct os_bio *bio) {
    return readable(bio, "os_bio_rw").rw;
}

void os_bio_set_rw(struct os_bio *bio, uint32_t rw) {
    changeable(bio, "os_bio_set_rw").rw = rw;
}

struct os_bdev *os_bio_bdev(const struct os_bio *bio) {
    return readable(bio, "os_bio_bdev").bdev;
}

void os_bio_set_bdev(struct os_bio *bio, struct os_bdev *bdev) {
    changeable(bio, "os_bio_set_bdev").bdev = bdev;
}

void *os_bio_private(const struct os_bio *bio) {
    return readable(bio, "os_bio_private").data;
}

// Private data may change under way: whoever gives a bio up takes its own mark off it.
void os_bio_set_private(struct os_bio *bio, void *data) {
    bio_check(bio, "os_bio_set_private");
    bio->data = data;
}

os_bio_end_io_fn os_bio_end_io(const struct os_bio *bio) {
    return readable(bio, "os_bio_end_io").end_io;
}

void os_bio_set_end_io(struct os_bio *bio, os_bio_end_io_fn fn) {
    changeable(bio, "os_bio_set_end_io").end_io = fn;
}

os_bio_destructor_fn os_bio_destructor(const struct os_bio *bio) {
    return readable(bio, "os_bio_destructor").destructor;
}

void os_bio_set_destructor(struct os_bio *bio, os_bio_destructor_fn fn) {
    bio_check(bio, "os_bio_set_destructor");
    bio->destructor = fn;
}

uint32_t os_bio_vcnt(const struct os_bio *bio) {
    return readable(bio, "os_bio_vcnt").vcnt;
}

struct os_bio_vec os_bio_vec_at(const struct os_bio *bio, uint32_t index) {
    bio_check(bio, "os_bio_vec_at");
    if (index >= bio->vcnt)
        fail("os_bio_vec_at: piece %u of %u", index, bio->vcnt);
    return bio->vecs[index];
}

uint16_t os_bio_idx(const struct os_bio *bio) {
    return readable(bio, "os_bio_idx").idx;
}

void os_bio_set_idx(struct os_bio *bio, uint16_t idx) {
    bio_check(bio, "os_bio_set_idx");
    bio->idx = idx;
}

bool os_bio_uptodate(const struct os_bio *bio) {
    return readable(bio, "os_bio_uptodate").uptodate;
}

void os_bio_endio(struct os_bio *bio, int error) {
    bio_check(bio, "os_bio_endio");
    if (error > 0)
        fail("os_bio_endio: error %d is positive", error);
    if (bio->state == BioState::kEnded)
        fail("double completion: os_bio_endio of a bio that ended already");
    if (bio->state == BioState::kWithDisk || bio->state == BioState::kQueued)
        fail("os_bio_endio of a bio that is under way (its disk will end it too)");
    point();
    bio_end(bio, error);
}

}  // extern "C"
