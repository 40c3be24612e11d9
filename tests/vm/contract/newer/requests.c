// tests/vm/contract/newer/requests.c: os/bio.h and os/disk.h where the requests of newer kernels differ
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/gfp.h>
#include <linux/sched.h>

#include "os/bio.h"
#include "os/linux/block.h"
#include "tests/vm/contract/contract.h"
#include "tests/vm/contract/memory_disk.h"

static struct memory_disk one;
static int ended, end_error;

static void note_end(struct os_bio *bio, int error) {
    ended++;
    end_error = error;
}

static void flags_come_back_as_they_were_set(void) {
    static const uint32_t flags[] = {
        0,
        OS_BIO_WRITE,
        OS_BIO_WRITE | OS_BIO_FUA,
        OS_BIO_WRITE | OS_BIO_FLUSH | OS_BIO_FUA,
        OS_BIO_WRITE | OS_BIO_DISCARD,
        OS_BIO_WRITE | OS_BIO_ZEROES,
    };
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
    size_t i;

    ASSERT(bio);
    for (i = 0; i < ARRAY_SIZE(flags); i++) {
        os_bio_set_rw(bio, flags[i]);
        EXPECT(os_bio_rw(bio) == flags[i]);
    }
    os_bio_put(bio);
}

static void requests_without_data_have_no_pieces(void) {
    struct bio *bio = bio_alloc(NULL, 0, REQ_OP_DISCARD, GFP_KERNEL);

    bio->bi_iter.bi_size = 1 << 20;
    EXPECT(os_bio_vcnt((struct os_bio *)bio) == 0);
    EXPECT(os_bio_size((struct os_bio *)bio) == 1 << 20);
    EXPECT(os_bio_rw((struct os_bio *)bio) == (OS_BIO_WRITE | OS_BIO_DISCARD));
    bio->bi_opf = REQ_OP_SECURE_ERASE;
    EXPECT(os_bio_rw((struct os_bio *)bio) == (OS_BIO_WRITE | OS_BIO_DISCARD));
    bio->bi_opf = REQ_OP_WRITE_ZEROES | REQ_FUA;
    EXPECT(os_bio_rw((struct os_bio *)bio) == (OS_BIO_WRITE | OS_BIO_ZEROES | OS_BIO_FUA));
    bio_put(bio);
}

/* The kernel's own bio over four pages in one vector, from byte 512 on. */
static struct bio *bio_of_many_pages(struct page *pages) {
    struct bio *bio = bio_alloc(NULL, 1, REQ_OP_READ, GFP_KERNEL);

    EXPECT(bio_add_page(bio, pages, 3 * PAGE_SIZE + 512, 512) == 3 * PAGE_SIZE + 512);
    EXPECT(bio->bi_vcnt == 1);
    return bio;
}

static void a_vector_of_many_pages_is_seen_page_by_page(void) {
    struct page *pages = alloc_pages(GFP_KERNEL | __GFP_COMP, 2);
    struct bio *bio;
    struct os_bio *b;
    uint32_t i, sum = 0;

    ASSERT(pages);
    bio = bio_of_many_pages(pages);
    b = (struct os_bio *)bio;
    EXPECT(os_bio_vcnt(b) == 4);
    for (i = 0; i < os_bio_vcnt(b); i++) {
        const struct os_bio_vec vec = os_bio_vec_at(b, i);

        EXPECT((struct page *)vec.page == pages + i);
        EXPECT(vec.offset == (i == 0 ? 512 : 0));
        EXPECT(vec.len == (i == 0 ? PAGE_SIZE - 512 : i == 3 ? 1024 : PAGE_SIZE));
        sum += vec.len;
    }
    EXPECT(sum == os_bio_size(b));
    bio_put(bio);
    __free_pages(pages, 2);
}

static void a_bio_that_was_split_shows_the_pieces_that_are_left(void) {
    struct page *pages = alloc_pages(GFP_KERNEL | __GFP_COMP, 2);
    struct bio *bio;
    struct os_bio_vec vec;

    ASSERT(pages);
    bio = bio_of_many_pages(pages);
    bio_advance(bio, PAGE_SIZE); /* to byte 512 of the second page */
    EXPECT(os_bio_sector((struct os_bio *)bio) == PAGE_SIZE >> OS_SECTOR_SHIFT);
    EXPECT(os_bio_vcnt((struct os_bio *)bio) == 3);
    vec = os_bio_vec_at((struct os_bio *)bio, 0);
    EXPECT((struct page *)vec.page == pages + 1 && vec.offset == 512);
    EXPECT(vec.len == PAGE_SIZE - 512);
    bio->bi_iter.bi_size = PAGE_SIZE; /* the rest belongs to another part */
    EXPECT(os_bio_vcnt((struct os_bio *)bio) == 2);
    vec = os_bio_vec_at((struct os_bio *)bio, 1);
    EXPECT((struct page *)vec.page == pages + 2 && vec.offset == 0 && vec.len == 512);
    bio_put(bio);
    __free_pages(pages, 2);
}

static int kernel_ended;

static void note_kernel_end(struct bio *bio) {
    kernel_ended++;
}

static void a_submitters_bio_is_lent_and_given_back(void) {
    struct bio *bio = bio_alloc(NULL, 1, REQ_OP_READ, GFP_KERNEL);
    struct os_bio *b = (struct os_bio *)bio;
    os_bio_end_io_fn end;
    void *data;

    kernel_ended = ended = 0;
    bio->bi_end_io = note_kernel_end;
    bio->bi_private = &kernel_ended;
    end = os_bio_end_io(b);
    data = os_bio_private(b);
    EXPECT(end && data == &kernel_ended);
    os_bio_set_end_io(b, note_end);
    os_bio_set_private(b, &ended);
    EXPECT(os_bio_end_io(b) == note_end && os_bio_private(b) == &ended);
    os_bio_endio(b, -EIO);
    EXPECT(ended == 1 && end_error == -EIO && kernel_ended == 0);
    os_bio_set_end_io(b, end);
    os_bio_set_private(b, data);
    EXPECT(bio->bi_end_io == note_kernel_end && bio->bi_private == &kernel_ended);
    end(b, -EIO);
    EXPECT(kernel_ended == 1 && bio->bi_status == BLK_STS_IOERR && ended == 1);
    bio_put(bio);
}

static void the_error_of_a_part_outlives_the_success_of_the_rest(void) {
    struct bio *rest = bio_alloc(NULL, 1, REQ_OP_READ, GFP_KERNEL);
    struct bio *part = bio_alloc(NULL, 1, REQ_OP_READ, GFP_KERNEL);

    kernel_ended = 0;
    rest->bi_end_io = note_kernel_end;
    bio_chain(part, rest);
    os_bio_endio((struct os_bio *)part, -EIO);
    EXPECT(kernel_ended == 0);
    os_bio_endio((struct os_bio *)rest, 0);
    EXPECT(kernel_ended == 1 && rest->bi_status == BLK_STS_IOERR);
    bio_put(rest);
}

/* As many pieces as a bio can have, of one page again and again. */
static void a_request_beyond_the_limits_comes_in_parts(void) {
    struct os_page *page = os_alloc_page(OS_GFP_KERNEL);
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, BIO_MAX_VECS);
    struct os_bdev *bdev;

    ASSERT(page && bio && memory_disk_make(&one, "trakone"));
    bdev = os_open_by_devnum(one.dev, OS_FMODE_READ | OS_FMODE_WRITE);
    if (EXPECT(!os_is_err(bdev))) {
        const uint32_t most = queue_max_bytes(real_disk(one.disk)->queue);

        while (os_bio_add_page(bio, page, OS_PAGE_SIZE, 0))
            ;
        EXPECT(os_bio_size(bio) == BIO_MAX_VECS * OS_PAGE_SIZE);
        os_bio_set_bdev(bio, bdev);
        EXPECT(contract_submit(bio, 0) == 0 && os_bio_uptodate(bio));
        EXPECT(one.total == BIO_MAX_VECS * OS_PAGE_SIZE && one.largest <= most);
        EXPECT(one.requests > 1);
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    }
    memory_disk_remove(&one);
    os_bio_put(bio);
    os_free_page(page);
}

static void unplug_runs_the_drivers_function_or_empties_the_tasks_plug(void) {
    struct blk_plug plug;

    ASSERT(memory_disk_make(&one, "trakone"));
    os_queue_unplug(NULL);
    os_queue_unplug(one.queue);
    EXPECT(one.unplugs == 1);
    blk_start_plug(&plug);
    os_queue_unplug(foreign_queue(real_disk(one.disk)));
    EXPECT(one.unplugs == 1 && current->plug == &plug);
    blk_finish_plug(&plug);
    EXPECT(!current->plug);
    memory_disk_remove(&one);
}

const struct contract_test request_tests[] = {
    CONTRACT(bio, flags_come_back_as_they_were_set),
    CONTRACT(bio, requests_without_data_have_no_pieces),
    CONTRACT(bio, a_vector_of_many_pages_is_seen_page_by_page),
    CONTRACT(bio, a_bio_that_was_split_shows_the_pieces_that_are_left),
    CONTRACT(bio, a_submitters_bio_is_lent_and_given_back),
    CONTRACT(bio, the_error_of_a_part_outlives_the_success_of_the_rest),
    CONTRACT(disk, a_request_beyond_the_limits_comes_in_parts),
    CONTRACT(disk, unplug_runs_the_drivers_function_or_empties_the_tasks_plug),
    {},
};
