// os/bio.h: block I/O requests
// SPDX-License-Identifier: GPL-2.0-only
//
// Owner      a bio has a count of references; whoever submits it gives it away until its end_io runs.
// Units      sector = 512 bytes; size and offsets = bytes.
// Completion os_bio_endio ends a bio exactly once: it marks it up to date or not and calls end_io.
//            end_io may run in interrupt context, and must not sleep.
// Afterwards sector, size and index of a bio that a device ended say how far it got, no longer what
//            was asked for; whoever needs that keeps a copy.
#ifndef TRAK_OS_BIO_H
#define TRAK_OS_BIO_H

#include "os/base.h"
#include "os/memory.h"

OS_BEGIN

struct os_bio;
struct os_bdev;

typedef void (*os_bio_end_io_fn)(struct os_bio *bio, int error);
typedef void (*os_bio_destructor_fn)(struct os_bio *bio);

/* Flags of a bio (its `rw`). Bit 0 is the direction. */
enum {
    OS_BIO_WRITE = 1u << 0,
    OS_BIO_FLUSH = 1u << 1,   /* the disk's volatile cache goes to the medium before the data */
    OS_BIO_FUA = 1u << 2,     /* this data is on the medium when the bio ends */
    OS_BIO_DISCARD = 1u << 3, /* counts as a write of its sectors; carries no pages */
    OS_BIO_ZEROES = 1u << 4,  /* write zeroes; carries no pages */
};

/* One piece of a page; offset + len <= OS_PAGE_SIZE. */
struct os_bio_vec {
    struct os_page *page;
    uint32_t len;
    uint32_t offset;
};

/* A new bio with room for max_vecs pieces, one reference, sector 0, no device. Context: as gfp
 * says. Null on failure. */
struct os_bio *os_bio_alloc(os_gfp gfp, uint32_t max_vecs) OS_MUST_CHECK;
/* A clone: same device, sector, size, flags and pieces (the pages are shared), its own end_io
 * (none), private data (null) and destructor. The parent and its pages stay until the clone has
 * ended. Null on failure. */
struct os_bio *os_bio_clone(struct os_bio *bio, os_gfp gfp) OS_MUST_CHECK;
/* Readies a bio of os_bio_alloc for another use: as new, but keeps its room and one reference. */
void os_bio_reset(struct os_bio *bio);
/* Drops a reference; the last one runs the destructor. Context: any. */
void os_bio_put(struct os_bio *bio);
/* Appends a piece and grows the size; false when there is no room left. */
bool os_bio_add_page(struct os_bio *bio, struct os_page *page, uint32_t len,
                     uint32_t offset) OS_MUST_CHECK;

uint64_t os_bio_sector(const struct os_bio *bio);
void os_bio_set_sector(struct os_bio *bio, uint64_t sector);
uint32_t
os_bio_size(const struct os_bio *bio); /* bytes left to do: all of them before submission */
uint32_t os_bio_rw(const struct os_bio *bio);
void os_bio_set_rw(struct os_bio *bio, uint32_t rw);
struct os_bdev *os_bio_bdev(const struct os_bio *bio);
void os_bio_set_bdev(struct os_bio *bio, struct os_bdev *bdev);
void *os_bio_private(const struct os_bio *bio);
void os_bio_set_private(struct os_bio *bio, void *data);
os_bio_end_io_fn os_bio_end_io(const struct os_bio *bio);
void os_bio_set_end_io(struct os_bio *bio, os_bio_end_io_fn fn);
/* The destructor runs once, when the last reference goes; the one that os_bio_clone installed
 * frees the bio, so a replacement calls it last. */
os_bio_destructor_fn os_bio_destructor(const struct os_bio *bio);
void os_bio_set_destructor(struct os_bio *bio, os_bio_destructor_fn fn);
/* Pieces: count, the one at index (below the count), and how far the bio got. */
uint32_t os_bio_vcnt(const struct os_bio *bio);
struct os_bio_vec os_bio_vec_at(const struct os_bio *bio, uint32_t index);
uint16_t os_bio_idx(const struct os_bio *bio);
void os_bio_set_idx(struct os_bio *bio, uint16_t idx);
/* True once the bio ended with error 0. */
bool os_bio_uptodate(const struct os_bio *bio);

/* Ends a bio. Context: any. error: 0 or a negative errno. */
void os_bio_endio(struct os_bio *bio, int error);
/* Hands the bio to the device that it names, whose queue may be another driver's or our own. Every
 * failure comes through end_io. Called inside a make-request function it may take effect only when
 * that function has returned: nothing there waits for the bio's end. Context: sleep. */
void os_generic_make_request(struct os_bio *bio);
/* The same with the flags set first, as the kernel's submit_bio. Context: sleep. */
void os_submit_bio(uint32_t rw, struct os_bio *bio);

OS_END

#endif
