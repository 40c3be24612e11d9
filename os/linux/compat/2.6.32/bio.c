// os/linux/compat/2.6.32/bio.c: block I/O requests of kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
//
// This kernel has what the driver keeps in a bio: an end function that takes the error, a destructor, an
// index. Only a bio of ours (os_bio_alloc, os_bio_clone) has a head before it, since the kernel's flag
// says that a bio is up to date before it has ended. Its end function, own_end, tells it apart.
//
// Barriers   The one flag that asks for the medium is the barrier: the cache is written before and after.
//            For the driver it is a flush with forced unit access.
// Discards   carry a page of zeroes for the disk, and claim to be as large as what they discard. The
//            driver sees none of the page.
#include <linux/bio.h>
#include <linux/blkdev.h>

#include "os/linux/block.h"
#include "os/linux/gfp.h"

enum { bio_reserve = 64 };

struct own_bio {
    os_bio_end_io_fn end_io;
    uint32_t room; /* pieces asked for; the kernel may have made room for more */
    bool uptodate;
    struct bio bio; /* last: its vectors follow */
};

static struct bio_set *made_bios;
static struct bio_set *cloned_bios;

static void own_end(struct bio *bio, int error) {
    struct own_bio *head = container_of(bio, struct own_bio, bio);

    head->uptodate = error == 0;
    if (head->end_io)
        head->end_io((struct os_bio *)bio, error);
}

static bool is_own(const struct bio *bio) {
    return bio->bi_end_io == own_end;
}

bool trak_bio_is_own(const struct bio *bio) {
    return is_own(bio);
}

static struct own_bio *own(const struct os_bio *bio) {
    return container_of(real_bio(bio), struct own_bio, bio);
}

static void destroy_made(struct bio *bio) {
    bio_free(bio, made_bios);
}

static void destroy_clone(struct bio *bio) {
    bio_free(bio, cloned_bios);
}

static void own_init(struct bio *bio, uint32_t room) {
    struct own_bio *head = container_of(bio, struct own_bio, bio);

    head->end_io = NULL;
    head->room = room;
    head->uptodate = false;
    bio->bi_end_io = own_end;
}

int trak_bio_init(void) {
    const unsigned int head = offsetof(struct own_bio, bio);

    made_bios = bioset_create(bio_reserve, head);
    if (!made_bios)
        return -ENOMEM;
    cloned_bios = bioset_create(bio_reserve, head);
    if (cloned_bios)
        return 0;
    bioset_free(made_bios);
    return -ENOMEM;
}

void trak_bio_exit(void) {
    bioset_free(cloned_bios);
    bioset_free(made_bios);
}

struct os_bio *os_bio_alloc(os_gfp gfp, uint32_t max_vecs) {
    struct bio *bio;

    if (max_vecs > BIO_MAX_PAGES)
        return NULL;
    bio = bio_alloc_bioset(os_linux_gfp(gfp), max_vecs, made_bios);
    if (!bio)
        return NULL;
    own_init(bio, max_vecs);
    bio->bi_destructor = destroy_made;
    return (struct os_bio *)bio;
}

/* Whoever made the bio may have given it vectors of his own: what counts is how many are used. */
struct os_bio *os_bio_clone(struct os_bio *bio, os_gfp gfp) {
    struct bio *from = real_bio(bio);
    struct bio *clone = bio_alloc_bioset(os_linux_gfp(gfp), from->bi_vcnt, cloned_bios);

    if (!clone)
        return NULL;
    own_init(clone, 0);
    clone->bi_destructor = destroy_clone;
    memcpy(clone->bi_io_vec, from->bi_io_vec, from->bi_vcnt * sizeof(struct bio_vec));
    clone->bi_sector = from->bi_sector;
    clone->bi_bdev = from->bi_bdev;
    clone->bi_flags |= 1 << BIO_CLONED;
    clone->bi_rw = from->bi_rw;
    clone->bi_vcnt = from->bi_vcnt;
    clone->bi_size = from->bi_size;
    clone->bi_idx = from->bi_idx;
    if (bio_integrity(from) &&
        bio_integrity_clone(clone, from, os_linux_gfp(gfp), cloned_bios) < 0) {
        bio_put(clone);
        return NULL;
    }
    return (struct os_bio *)clone;
}

void os_bio_reset(struct os_bio *bio) {
    struct bio *b = real_bio(bio);
    const struct bio kept = *b;

    bio_init(b);
    b->bi_flags |= BIO_POOL_IDX(&kept) << BIO_POOL_OFFSET;
    b->bi_max_vecs = kept.bi_max_vecs;
    b->bi_io_vec = kept.bi_io_vec;
    b->bi_destructor = kept.bi_destructor;
    own_init(b, own(bio)->room);
}

void os_bio_put(struct os_bio *bio) {
    bio_put(real_bio(bio));
}

/* Not bio_add_page, which asks the queue of a device that isn't known yet. One page is what every queue
 * takes, and the driver's own bios have no more. */
bool os_bio_add_page(struct os_bio *bio, struct os_page *page, uint32_t len, uint32_t offset) {
    struct bio *b = real_bio(bio);
    struct bio_vec *vec;

    if (b->bi_vcnt >= own(bio)->room)
        return false;
    vec = &b->bi_io_vec[b->bi_vcnt++];
    vec->bv_page = (struct page *)page;
    vec->bv_len = len;
    vec->bv_offset = offset;
    b->bi_size += len;
    return true;
}

uint64_t os_bio_sector(const struct os_bio *bio) {
    return real_bio(bio)->bi_sector;
}

void os_bio_set_sector(struct os_bio *bio, uint64_t sector) {
    real_bio(bio)->bi_sector = sector;
}

uint32_t os_bio_size(const struct os_bio *bio) {
    return real_bio(bio)->bi_size;
}

uint32_t os_bio_rw(const struct os_bio *bio) {
    struct bio *b = real_bio(bio);
    uint32_t rw = bio_data_dir(b) == WRITE ? OS_BIO_WRITE : 0;

    if (bio_rw_flagged(b, BIO_RW_BARRIER))
        rw |= OS_BIO_FLUSH | OS_BIO_FUA;
    if (bio_rw_flagged(b, BIO_RW_DISCARD))
        rw |= OS_BIO_WRITE | OS_BIO_DISCARD;
    return rw;
}

/* There is no writing of zeroes without pages in this kernel, and nobody asks for it. */
void os_bio_set_rw(struct os_bio *bio, uint32_t rw) {
    unsigned long real = rw & (OS_BIO_WRITE | OS_BIO_FLUSH | OS_BIO_DISCARD) ? WRITE : READ;

    OS_BUG_ON((rw & OS_BIO_ZEROES) != 0);
    if (rw & (OS_BIO_FLUSH | OS_BIO_FUA))
        real |= 1 << BIO_RW_BARRIER;
    if (rw & OS_BIO_DISCARD)
        real |= 1 << BIO_RW_DISCARD;
    real_bio(bio)->bi_rw = real;
}

struct os_bdev *os_bio_bdev(const struct os_bio *bio) {
    return (struct os_bdev *)real_bio(bio)->bi_bdev;
}

/* The sector stays: where the device is a partition, the kernel adds its start on submission. How many
 * segments the bio has was counted for another queue, if at all. */
void os_bio_set_bdev(struct os_bio *bio, struct os_bdev *bdev) {
    real_bio(bio)->bi_bdev = real_bdev(bdev);
    real_bio(bio)->bi_flags &= ~(1ul << BIO_SEG_VALID);
}

void *os_bio_private(const struct os_bio *bio) {
    return real_bio(bio)->bi_private;
}

void os_bio_set_private(struct os_bio *bio, void *data) {
    real_bio(bio)->bi_private = data;
}

os_bio_end_io_fn os_bio_end_io(const struct os_bio *bio) {
    struct bio *b = real_bio(bio);

    return is_own(b) ? own(bio)->end_io : (os_bio_end_io_fn)b->bi_end_io;
}

void os_bio_set_end_io(struct os_bio *bio, os_bio_end_io_fn fn) {
    struct bio *b = real_bio(bio);

    if (is_own(b))
        own(bio)->end_io = fn;
    else
        b->bi_end_io = (bio_end_io_t *)fn;
}

os_bio_destructor_fn os_bio_destructor(const struct os_bio *bio) {
    return (os_bio_destructor_fn)real_bio(bio)->bi_destructor;
}

void os_bio_set_destructor(struct os_bio *bio, os_bio_destructor_fn fn) {
    real_bio(bio)->bi_destructor = (bio_destructor_t *)fn;
}

bool os_bio_uptodate(const struct os_bio *bio) {
    struct bio *b = real_bio(bio);

    return is_own(b) ? own(bio)->uptodate : bio_flagged(b, BIO_UPTODATE);
}

void os_bio_endio(struct os_bio *bio, int error) {
    bio_endio(real_bio(bio), error);
}

uint32_t os_bio_vcnt(const struct os_bio *bio) {
    struct bio *b = real_bio(bio);

    return bio_rw_flagged(b, BIO_RW_DISCARD) ? 0 : b->bi_vcnt;
}

struct os_bio_vec os_bio_vec_at(const struct os_bio *bio, uint32_t index) {
    const struct bio_vec *vec = &real_bio(bio)->bi_io_vec[index];

    OS_BUG_ON(index >= os_bio_vcnt(bio));
    return (struct os_bio_vec){(struct os_page *)vec->bv_page, vec->bv_len, vec->bv_offset};
}

uint16_t os_bio_idx(const struct os_bio *bio) {
    return real_bio(bio)->bi_idx;
}

void os_bio_set_idx(struct os_bio *bio, uint16_t idx) {
    real_bio(bio)->bi_idx = idx;
}

void os_generic_make_request(struct os_bio *bio) {
    generic_make_request(real_bio(bio));
}

void os_submit_bio(uint32_t rw, struct os_bio *bio) {
    os_bio_set_rw(bio, rw);
    submit_bio(rw & OS_BIO_WRITE ? WRITE : READ, real_bio(bio));
}
