// tests/vm/contract/bio.c: os/bio.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/bio.h"

#include <linux/bio.h>
#include <linux/completion.h>
#include <linux/gfp.h>

#include "tests/vm/contract/contract.h"

static int ended, end_error, destroyed;
static os_bio_destructor_fn own_destructor;

static void note_end(struct os_bio *bio, int error) {
    ended++;
    end_error = error;
}

static void count_and_destroy(struct os_bio *bio) {
    destroyed++;
    own_destructor(bio);
}

static void a_new_bio_is_empty_and_aims_nowhere(void) {
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 3);

    ASSERT(bio);
    EXPECT(os_bio_sector(bio) == 0 && os_bio_size(bio) == 0);
    EXPECT(os_bio_vcnt(bio) == 0 && os_bio_idx(bio) == 0);
    EXPECT(os_bio_rw(bio) == 0);
    EXPECT(!os_bio_bdev(bio) && !os_bio_private(bio) && !os_bio_end_io(bio));
    EXPECT(!os_bio_uptodate(bio));
    os_bio_put(bio);
    EXPECT(!os_bio_alloc(OS_GFP_KERNEL, BIO_MAX_VECS + 1));
}

static void pages_are_added_until_there_is_no_room(void) {
    struct os_page *page = os_alloc_page(OS_GFP_KERNEL);
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 2);
    struct os_bio_vec vec;

    ASSERT(page && bio);
    EXPECT(os_bio_add_page(bio, page, 512, 1024));
    EXPECT(os_bio_add_page(bio, page, 512, 1536)); /* not joined with the one before */
    EXPECT(!os_bio_add_page(bio, page, 512, 0));
    EXPECT(os_bio_vcnt(bio) == 2 && os_bio_size(bio) == 1024);
    vec = os_bio_vec_at(bio, 1);
    EXPECT(vec.page == page && vec.len == 512 && vec.offset == 1536);
    os_bio_put(bio);
    os_free_page(page);
}

static void a_clone_shares_pages_and_has_its_own_end(void) {
    struct os_page *page = os_alloc_page(OS_GFP_KERNEL);
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
    struct os_bio *clone;

    ASSERT(page && bio && os_bio_add_page(bio, page, 1024, 512));
    os_bio_set_sector(bio, 5);
    os_bio_set_rw(bio, OS_BIO_WRITE | OS_BIO_FUA);
    os_bio_set_end_io(bio, note_end);
    os_bio_set_private(bio, page);
    clone = os_bio_clone(bio, OS_GFP_NOIO);
    ASSERT(clone);
    EXPECT(os_bio_sector(clone) == 5 && os_bio_size(clone) == 1024);
    EXPECT(os_bio_rw(clone) == os_bio_rw(bio) && os_bio_vcnt(clone) == 1);
    EXPECT(os_bio_vec_at(clone, 0).page == page && os_bio_vec_at(clone, 0).offset == 512);
    EXPECT(!os_bio_end_io(clone) && !os_bio_private(clone) && os_bio_destructor(clone));
    destroyed = 0;
    own_destructor = os_bio_destructor(clone);
    os_bio_set_destructor(clone, count_and_destroy);
    os_bio_put(clone);
    EXPECT(destroyed == 1);
    os_bio_put(bio);
    os_free_page(page);
}

static void an_ended_bio_is_as_new_after_a_reset(void) {
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);

    ASSERT(bio);
    ended = 0;
    os_bio_set_end_io(bio, note_end);
    os_bio_set_private(bio, bio);
    os_bio_endio(bio, -ENOSPC);
    EXPECT(ended == 1 && end_error == -ENOSPC && !os_bio_uptodate(bio));
    os_bio_reset(bio);
    EXPECT(!os_bio_end_io(bio) && !os_bio_private(bio) && !os_bio_bdev(bio));
    os_bio_set_end_io(bio, note_end);
    os_bio_endio(bio, 0);
    EXPECT(ended == 2 && end_error == 0 && os_bio_uptodate(bio));
    os_bio_put(bio);
}

static void end_in_interrupt(void *arg) {
    os_bio_endio(arg, -EIO);
    os_bio_put(arg);
}

static void a_bio_ends_and_goes_in_interrupt_context(void) {
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);

    ASSERT(bio);
    ended = 0;
    os_bio_set_end_io(bio, note_end);
    contract_in_interrupt(end_in_interrupt, bio);
    EXPECT(ended == 1 && end_error == -EIO);
}

const struct contract_test bio_tests[] = {
    CONTRACT(bio, a_new_bio_is_empty_and_aims_nowhere),
    CONTRACT(bio, pages_are_added_until_there_is_no_room),
    CONTRACT(bio, a_clone_shares_pages_and_has_its_own_end),
    CONTRACT(bio, an_ended_bio_is_as_new_after_a_reset),
    CONTRACT(bio, a_bio_ends_and_goes_in_interrupt_context),
    {},
};
