// tests/vm/contract/2.6.32/requests.c: os/bio.h and os/disk.h where the requests of kernel 2.6.32 differ
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/gfp.h>

#include "os/bio.h"
#include "os/linux/block.h"
#include "tests/vm/contract/contract.h"
#include "tests/vm/contract/memory_disk.h"

enum { both = OS_FMODE_READ | OS_FMODE_WRITE };

static struct memory_disk one, two;
static int ended, end_error;

static void note_end(struct os_bio *bio, int error) {
    ended++;
    end_error = error;
}

/* A barrier is both a flush and a write through the cache. */
static void flags_come_back_as_they_were_set(void) {
    static const uint32_t flags[] = {
        0,
        OS_BIO_WRITE,
        OS_BIO_WRITE | OS_BIO_FLUSH | OS_BIO_FUA,
        OS_BIO_WRITE | OS_BIO_DISCARD,
    };
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
    size_t i;

    ASSERT(bio);
    for (i = 0; i < ARRAY_SIZE(flags); i++) {
        os_bio_set_rw(bio, flags[i]);
        EXPECT(os_bio_rw(bio) == flags[i]);
    }
    os_bio_set_rw(bio, OS_BIO_WRITE | OS_BIO_FUA);
    EXPECT(os_bio_rw(bio) == (OS_BIO_WRITE | OS_BIO_FLUSH | OS_BIO_FUA));
    os_bio_put(bio);
}

/* One that carries its page of zeroes for the disk. */
static void a_discard_has_no_pieces_and_its_clone_is_one(void) {
    struct page *page = alloc_page(GFP_KERNEL | __GFP_ZERO);
    struct bio *bio = bio_alloc(GFP_KERNEL, 1);
    struct os_bio *b = (struct os_bio *)bio, *clone;

    ASSERT(page && bio);
    bio->bi_io_vec[0].bv_page = page;
    bio->bi_io_vec[0].bv_len = 512;
    bio->bi_io_vec[0].bv_offset = 0;
    bio->bi_vcnt = 1;
    bio->bi_size = 1 << 20;
    bio->bi_rw = WRITE | 1 << BIO_RW_DISCARD;
    EXPECT(os_bio_vcnt(b) == 0 && os_bio_size(b) == 1 << 20);
    EXPECT(os_bio_rw(b) == (OS_BIO_WRITE | OS_BIO_DISCARD));
    clone = os_bio_clone(b, OS_GFP_NOIO);
    if (EXPECT(clone)) {
        EXPECT(os_bio_vcnt(clone) == 0 && os_bio_size(clone) == 1 << 20);
        EXPECT(((struct bio *)clone)->bi_vcnt == 1 && os_bio_rw(clone) == os_bio_rw(b));
        os_bio_put(clone);
    }
    bio_put(bio);
    __free_page(page);
}

static int kernel_ended, kernel_error;

static void note_kernel_end(struct bio *bio, int error) {
    kernel_ended++;
    kernel_error = error;
}

static void a_submitters_bio_is_lent_and_given_back(void) {
    struct bio *bio = bio_alloc(GFP_KERNEL, 1);
    struct os_bio *b = (struct os_bio *)bio;
    os_bio_end_io_fn end;
    void *data;

    ASSERT(bio);
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
    EXPECT(kernel_ended == 1 && kernel_error == -EIO && ended == 1);
    EXPECT(!os_bio_uptodate(b));
    bio_put(bio);
}

/* A clone keeps what the block layer was told beside the direction. */
static void a_clone_keeps_every_flag_and_how_far_the_bio_got(void) {
    struct page *page = alloc_page(GFP_KERNEL);
    struct bio *bio = bio_alloc(GFP_KERNEL, 2);
    struct os_bio *clone;
    int i;

    ASSERT(page && bio);
    for (i = 0; i < 2; i++) {
        bio->bi_io_vec[i].bv_page = page;
        bio->bi_io_vec[i].bv_len = 1024;
        bio->bi_io_vec[i].bv_offset = 1024 * i;
    }
    bio->bi_vcnt = 2;
    bio->bi_idx = 1;
    bio->bi_size = 1024;
    bio->bi_rw = WRITE | 1 << BIO_RW_SYNCIO | 1 << BIO_RW_META;
    clone = os_bio_clone((struct os_bio *)bio, OS_GFP_NOIO);
    if (EXPECT(clone)) {
        EXPECT(((struct bio *)clone)->bi_rw == bio->bi_rw);
        EXPECT(os_bio_vcnt(clone) == 2 && os_bio_idx(clone) == 1 && os_bio_size(clone) == 1024);
        EXPECT(os_bio_vec_at(clone, 1).offset == 1024);
        os_bio_put(clone);
    }
    bio_put(bio);
    __free_page(page);
}

static int answer(struct request_queue *queue, struct bvec_merge_data *data, struct bio_vec *vec) {
    return vec->bv_len;
}

/* A queue that is asked about each piece gets no request of more than a page. */
static void limits_are_those_of_the_disk_below(void) {
    struct request_queue *below, *above;

    ASSERT(memory_disk_make(&one, "trakone"));
    if (EXPECT(memory_disk_make(&two, "traktwo"))) {
        below = real_queue(one.queue);
        above = real_queue(two.queue);
        blk_queue_logical_block_size(below, 4096);
        blk_queue_max_sectors(below, 64);
        blk_queue_max_discard_sectors(below, 1 << 20);
        queue_flag_set_unlocked(QUEUE_FLAG_DISCARD, below);
        os_queue_copy_limits(two.queue, one.queue);
        EXPECT(queue_logical_block_size(above) == 4096 && queue_max_sectors(above) == 64);
        EXPECT(blk_queue_discard(above) && above->limits.max_discard_sectors == 4096 * 8);
        below->merge_bvec_fn = answer;
        os_queue_copy_limits(two.queue, one.queue);
        EXPECT(queue_max_sectors(above) == 8 && queue_max_hw_sectors(above) == 8);
        below->merge_bvec_fn = NULL;
        memory_disk_remove(&two);
    }
    memory_disk_remove(&one);
}

/* One that is larger than the queue takes never comes to the driver. */
static void a_request_beyond_the_limits_is_refused(void) {
    struct os_page *page = os_alloc_page(OS_GFP_KERNEL);
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 2);
    struct os_bdev *bdev;

    ASSERT(page && bio && memory_disk_make(&one, "trakone"));
    bdev = os_open_by_devnum(one.dev, both);
    if (EXPECT(!os_is_err(bdev))) {
        blk_queue_max_sectors(real_queue(one.queue), 8);
        EXPECT(os_bio_add_page(bio, page, OS_PAGE_SIZE, 0));
        EXPECT(os_bio_add_page(bio, page, OS_PAGE_SIZE, 0));
        os_bio_set_bdev(bio, bdev);
        EXPECT(contract_submit(bio, 0) == -EIO && one.requests == 0);
        os_blkdev_put(bdev, both);
    }
    memory_disk_remove(&one);
    os_bio_put(bio);
    os_free_page(page);
}

static int unplugs_below;

static void count_unplug(struct request_queue *queue) {
    unplugs_below++;
}

static void unplug_runs_the_function_of_the_queue(void) {
    ASSERT(memory_disk_make(&one, "trakone"));
    os_queue_unplug(NULL);
    os_queue_unplug(one.queue);
    EXPECT(one.unplugs == 1);
    unplugs_below = 0;
    real_queue(one.queue)->unplug_fn = count_unplug;
    os_queue_unplug(foreign_queue(real_disk(one.disk)));
    EXPECT(one.unplugs == 1 && unplugs_below == 1);
    memory_disk_remove(&one);
}

const struct contract_test request_tests[] = {
    CONTRACT(bio, flags_come_back_as_they_were_set),
    CONTRACT(bio, a_discard_has_no_pieces_and_its_clone_is_one),
    CONTRACT(bio, a_submitters_bio_is_lent_and_given_back),
    CONTRACT(bio, a_clone_keeps_every_flag_and_how_far_the_bio_got),
    CONTRACT(disk, limits_are_those_of_the_disk_below),
    CONTRACT(disk, a_request_beyond_the_limits_is_refused),
    CONTRACT(disk, unplug_runs_the_function_of_the_queue),
    {},
};
