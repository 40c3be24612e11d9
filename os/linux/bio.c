// os/linux/bio.c: block I/O requests
// SPDX-License-Identifier: GPL-2.0-only
//
// A bio of ours (os_bio_alloc, os_bio_clone) comes from one of two sets and has a head before it with
// what the driver keeps in a bio and this kernel has no room for. A submitter's bio has only what the
// kernel gives it. bi_pool tells them apart.
//
// A kernel of this age ends a bio with one argument, bi_status. For ours that is own_end, which calls the
// driver's function with the error. On a submitter's bio the driver may put its own end and take it off
// again: the bio is then on loan, its own end and private data wait in a record from a pool, so that
// putting it there waits for memory but does not fail.
//
// Pieces     The kernel's vectors span many pages and a bio may begin or end within one. The driver sees
//            pieces that lie within a page, of what is left of the bio, counted from 0.
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/mempool.h>

#include "os/linux/block.h"
#include "os/linux/gfp.h"

enum { bio_reserve = 64, loan_reserve = 16 };

struct own_bio {
    os_bio_end_io_fn end_io;
    os_bio_destructor_fn destructor;
    uint32_t room; /* pieces asked for; the kernel may have made room for more */
    uint16_t idx;
    bool uptodate;
    struct bio bio; /* last: its vectors follow */
};

struct loan {
    bio_end_io_t *end_io; /* the submitter's */
    void *private;
    os_bio_end_io_fn borrower_end_io;
    void *borrower_private;
};

static struct bio_set made_bios;
static struct bio_set cloned_bios;
static mempool_t *loans;

static bool is_own(const struct bio *bio) {
    return bio->bi_pool == &made_bios || bio->bi_pool == &cloned_bios;
}

static struct own_bio *own(const struct os_bio *bio) {
    return container_of(real_bio(bio), struct own_bio, bio);
}

static void own_end(struct bio *bio) {
    struct own_bio *head = container_of(bio, struct own_bio, bio);

    head->uptodate = bio->bi_status == BLK_STS_OK;
    if (head->end_io)
        head->end_io((struct os_bio *)bio, blk_status_to_errno(bio->bi_status));
}

static void own_destroy(struct os_bio *bio) {
    bio_put(real_bio(bio));
}

static void own_init(struct bio *bio) {
    struct own_bio *head = container_of(bio, struct own_bio, bio);

    head->end_io = NULL;
    head->destructor = own_destroy;
    head->idx = 0;
    head->uptodate = false;
    bio->bi_end_io = own_end;
    bio->bi_private = NULL;
}

/* The clones' set has a thread that submits what a task in a make-request function still holds back,
 * when that task waits here for memory which those bios will set free. */
int trak_bio_init(void) {
    const unsigned int head = offsetof(struct own_bio, bio);
    int rc = bioset_init(&made_bios, bio_reserve, head, BIOSET_NEED_BVECS | BIOSET_NEED_RESCUER);

    if (rc != 0)
        return rc;
    rc = bioset_init(&cloned_bios, bio_reserve, head, BIOSET_NEED_RESCUER);
    if (rc != 0)
        goto no_clones;
    loans = mempool_create_kmalloc_pool(loan_reserve, sizeof(struct loan));
    if (loans)
        return 0;
    rc = -ENOMEM;
    bioset_exit(&cloned_bios);
no_clones:
    bioset_exit(&made_bios);
    return rc;
}

void trak_bio_exit(void) {
    mempool_destroy(loans);
    bioset_exit(&cloned_bios);
    bioset_exit(&made_bios);
}

struct os_bio *os_bio_alloc(os_gfp gfp, uint32_t max_vecs) {
    struct bio *bio;

    if (max_vecs > BIO_MAX_VECS)
        return NULL;
    bio = bio_alloc_bioset(NULL, max_vecs, 0, os_linux_gfp(gfp), &made_bios);
    if (!bio)
        return NULL;
    own_init(bio);
    own((struct os_bio *)bio)->room = max_vecs;
    return (struct os_bio *)bio;
}

struct os_bio *os_bio_clone(struct os_bio *bio, os_gfp gfp) {
    struct bio *from = real_bio(bio);
    struct bio *clone = bio_alloc_clone(from->bi_bdev, from, os_linux_gfp(gfp), &cloned_bios);

    if (!clone)
        return NULL;
    own_init(clone);
    own((struct os_bio *)clone)->room = 0;
    return (struct os_bio *)clone;
}

void os_bio_reset(struct os_bio *bio) {
    bio_reset(real_bio(bio), NULL, 0);
    own_init(real_bio(bio));
}

void os_bio_put(struct os_bio *bio) {
    own(bio)->destructor(bio);
}

bool os_bio_add_page(struct os_bio *bio, struct os_page *page, uint32_t len, uint32_t offset) {
    struct bio *b = real_bio(bio);

    if (b->bi_vcnt >= own(bio)->room)
        return false;
    __bio_add_page(b, (struct page *)page, len, offset);
    return true;
}

uint64_t os_bio_sector(const struct os_bio *bio) {
    return real_bio(bio)->bi_iter.bi_sector;
}

void os_bio_set_sector(struct os_bio *bio, uint64_t sector) {
    real_bio(bio)->bi_iter.bi_sector = sector;
}

uint32_t os_bio_size(const struct os_bio *bio) {
    return real_bio(bio)->bi_iter.bi_size;
}

uint32_t os_bio_rw(const struct os_bio *bio) {
    const blk_opf_t opf = real_bio(bio)->bi_opf;
    uint32_t rw = op_is_write(opf) ? OS_BIO_WRITE : 0;

    if (opf & REQ_PREFLUSH)
        rw |= OS_BIO_FLUSH;
    if (opf & REQ_FUA)
        rw |= OS_BIO_FUA;
    switch (opf & REQ_OP_MASK) {
    case REQ_OP_DISCARD:
    case REQ_OP_SECURE_ERASE:
        return rw | OS_BIO_DISCARD;
    case REQ_OP_WRITE_ZEROES:
        return rw | OS_BIO_ZEROES;
    default:
        return rw;
    }
}

void os_bio_set_rw(struct os_bio *bio, uint32_t rw) {
    blk_opf_t opf = rw & (OS_BIO_WRITE | OS_BIO_FLUSH) ? REQ_OP_WRITE : REQ_OP_READ;

    if (rw & OS_BIO_DISCARD)
        opf = REQ_OP_DISCARD;
    else if (rw & OS_BIO_ZEROES)
        opf = REQ_OP_WRITE_ZEROES;
    if (rw & OS_BIO_FLUSH)
        opf |= REQ_PREFLUSH;
    if (rw & OS_BIO_FUA)
        opf |= REQ_FUA;
    real_bio(bio)->bi_opf = opf;
}

struct os_bdev *os_bio_bdev(const struct os_bio *bio) {
    return (struct os_bdev *)real_bio(bio)->bi_bdev;
}

/* The sector stays: where the device is a partition, the kernel adds its start on submission. */
void os_bio_set_bdev(struct os_bio *bio, struct os_bdev *bdev) {
    bio_set_dev(real_bio(bio), real_bdev(bdev));
}

/* ---- the end ------------------------------------------------------------------------------------ */

static void loan_end(struct bio *bio) {
    struct loan *loan = bio->bi_private;

    loan->borrower_end_io((struct os_bio *)bio, blk_status_to_errno(bio->bi_status));
}

static bool on_loan(const struct bio *bio) {
    return bio->bi_end_io == loan_end;
}

/* What the driver takes for the end function of a submitter's bio. */
static void foreign_end(struct os_bio *bio, int error) {
    os_bio_endio(bio, error);
}

static void borrow(struct bio *bio, os_bio_end_io_fn fn) {
    struct loan *loan = mempool_alloc(loans, GFP_NOIO);

    loan->end_io = bio->bi_end_io;
    loan->private = bio->bi_private;
    loan->borrower_end_io = fn;
    loan->borrower_private = NULL;
    bio->bi_private = loan;
    bio->bi_end_io = loan_end;
}

static void give_back(struct bio *bio) {
    struct loan *loan = bio->bi_private;

    bio->bi_end_io = loan->end_io;
    bio->bi_private = loan->private;
    mempool_free(loan, loans);
}

void *os_bio_private(const struct os_bio *bio) {
    const struct bio *b = real_bio(bio);

    return on_loan(b) ? ((struct loan *)b->bi_private)->borrower_private : b->bi_private;
}

void os_bio_set_private(struct os_bio *bio, void *data) {
    struct bio *b = real_bio(bio);

    if (on_loan(b))
        ((struct loan *)b->bi_private)->borrower_private = data;
    else
        b->bi_private = data;
}

os_bio_end_io_fn os_bio_end_io(const struct os_bio *bio) {
    const struct bio *b = real_bio(bio);

    if (is_own(b))
        return own(bio)->end_io;
    return on_loan(b) ? ((struct loan *)b->bi_private)->borrower_end_io : foreign_end;
}

void os_bio_set_end_io(struct os_bio *bio, os_bio_end_io_fn fn) {
    struct bio *b = real_bio(bio);

    if (is_own(b))
        own(bio)->end_io = fn;
    else if (fn == foreign_end)
        give_back(b);
    else
        borrow(b, fn);
}

os_bio_destructor_fn os_bio_destructor(const struct os_bio *bio) {
    return own(bio)->destructor;
}

void os_bio_set_destructor(struct os_bio *bio, os_bio_destructor_fn fn) {
    own(bio)->destructor = fn;
}

bool os_bio_uptodate(const struct os_bio *bio) {
    const struct bio *b = real_bio(bio);

    return is_own(b) ? own(bio)->uptodate : b->bi_status == BLK_STS_OK;
}

/* An error that is there already stays: a part that was split off may have left it. */
void os_bio_endio(struct os_bio *bio, int error) {
    struct bio *b = real_bio(bio);

    if (error != 0)
        b->bi_status = errno_to_blk_status(error);
    bio_endio(b);
}

/* ---- pieces ------------------------------------------------------------------------------------- */

static uint32_t pages_of(const struct bio_vec *vec) {
    return DIV_ROUND_UP(offset_in_page(vec->bv_offset) + vec->bv_len, PAGE_SIZE);
}

uint32_t os_bio_vcnt(const struct os_bio *bio) {
    struct bio *b = real_bio(bio);
    struct bvec_iter iter;
    struct bio_vec vec;
    uint32_t count = 0;

    if (!bio_has_data(b))
        return 0;
    bio_for_each_bvec(vec, b, iter) count += pages_of(&vec);
    return count;
}

/* One page of a vector. */
static struct os_bio_vec page_of(const struct bio_vec *vec, uint32_t number) {
    const uint32_t start = offset_in_page(vec->bv_offset);
    const uint32_t from = number == 0 ? start : 0;
    const uint32_t left = start + vec->bv_len - number * PAGE_SIZE;
    const struct os_bio_vec piece = {
        .page = (struct os_page *)nth_page(vec->bv_page, vec->bv_offset / PAGE_SIZE + number),
        .len = min_t(uint32_t, left, PAGE_SIZE) - from,
        .offset = from,
    };

    return piece;
}

struct os_bio_vec os_bio_vec_at(const struct os_bio *bio, uint32_t index) {
    struct bio *b = real_bio(bio);
    struct bvec_iter iter;
    struct bio_vec vec;

    bio_for_each_bvec(vec, b, iter) {
        const uint32_t count = pages_of(&vec);

        if (index < count)
            return page_of(&vec, index);
        index -= count;
    }
    OS_BUG_ON(true); /* a piece beyond the bio's last */
    return (struct os_bio_vec){NULL, 0, 0};
}

/* How far a submitter's bio got is for nobody here to change: its owner may walk it again. */
uint16_t os_bio_idx(const struct os_bio *bio) {
    return is_own(real_bio(bio)) ? own(bio)->idx : 0;
}

void os_bio_set_idx(struct os_bio *bio, uint16_t idx) {
    if (is_own(real_bio(bio)))
        own(bio)->idx = idx;
}

/* ---- submission --------------------------------------------------------------------------------- */

void os_generic_make_request(struct os_bio *bio) {
    submit_bio_noacct(real_bio(bio));
}

void os_submit_bio(uint32_t rw, struct os_bio *bio) {
    os_bio_set_rw(bio, rw);
    submit_bio(real_bio(bio));
}
