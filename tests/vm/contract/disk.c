// tests/vm/contract/disk.c: os/disk.h and os/bdev.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/disk.h"

#include <linux/blkdev.h>
#include <linux/device.h>

#include <compat_bdev.h>

#include "os/linux/block.h"
#include "tests/vm/contract/contract.h"
#include "tests/vm/contract/memory_disk.h"

enum { both = OS_FMODE_READ | OS_FMODE_WRITE };

static struct memory_disk one, two;

/* One page moved at a sector: 0 or the error that it ended with. */
static int move_page(struct os_bdev *bdev, uint32_t rw, uint64_t sector, uint8_t *bytes) {
    struct os_page *page = os_alloc_page(OS_GFP_KERNEL);
    struct os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
    int rc = -ENOMEM;

    if (EXPECT(page && bio && os_bio_add_page(bio, page, OS_PAGE_SIZE, 0))) {
        memcpy(os_page_address(page), bytes, OS_PAGE_SIZE);
        os_bio_set_bdev(bio, bdev);
        os_bio_set_sector(bio, sector);
        rc = contract_submit(bio, rw);
        memcpy(bytes, os_page_address(page), OS_PAGE_SIZE);
        os_bio_put(bio);
        os_free_page(page);
    }
    return rc;
}

static uint8_t buffer[OS_PAGE_SIZE];

static bool holds(uint8_t value) {
    return !memchr_inv(buffer, value, sizeof(buffer));
}

static void opens_and_releases_reach_the_driver_and_are_counted(void) {
    struct os_bdev *bdev, *again;

    ASSERT(memory_disk_make(&one, "trakone"));
    bdev = os_open_by_devnum(one.dev, both);
    if (EXPECT(!os_is_err(bdev))) {
        EXPECT(one.opens == 1 && os_bdev_openers(bdev) == 1);
        EXPECT(os_bdev_dev(bdev) == one.dev && os_bdev_disk(bdev) == one.disk);
        EXPECT(os_bdev_queue(bdev) == one.queue && os_queue_data(one.queue) == &one);
        EXPECT(os_bdev_size(bdev) == memory_disk_bytes && os_bdev_block_size(bdev) == 512);
        again = os_open_by_devnum(one.dev, OS_FMODE_READ);
        if (EXPECT(!os_is_err(again))) {
            EXPECT(again == bdev && one.opens == 2 && os_bdev_openers(bdev) == 2);
            os_blkdev_put(again, both);
        }
        EXPECT(one.releases == 1 && os_bdev_openers(bdev) == 1);
        os_blkdev_put(bdev, both);
        EXPECT(one.releases == 2);
    }
    memory_disk_remove(&one);
    EXPECT(os_is_err(os_open_by_devnum(one.dev, OS_FMODE_READ)));
}

static void the_drivers_error_reaches_who_opens(void) {
    ASSERT(memory_disk_make(&one, "trakone"));
    one.open_error = -ENXIO;
    EXPECT(os_ptr_err(os_open_by_devnum(one.dev, both)) == -ENXIO);
    one.open_error = 0;
    os_disk_set_ro(one.disk, 1);
    EXPECT(os_is_err(os_open_by_devnum(one.dev, both)));
    EXPECT(one.opens == 0);
    memory_disk_remove(&one);
}

static void a_disk_that_was_never_added_is_given_back(void) {
    struct os_disk *disk = os_alloc_disk(1);
    struct os_queue *queue = os_alloc_queue(OS_GFP_KERNEL);

    ASSERT(disk && queue);
    EXPECT(!os_disk_queue(disk));
    os_disk_set_queue(disk, queue);
    EXPECT(os_disk_queue(disk) == queue);
    os_cleanup_queue(queue);
    os_put_disk(disk);
    queue = os_alloc_queue(OS_GFP_KERNEL);
    ASSERT(queue);
    os_cleanup_queue(queue);
}

/* As somebody who found it just before it went, and opens it now. */
static void a_disk_that_was_taken_away_still_has_its_record_for_who_refers_to_it(void) {
    struct os_disk *disk;

    ASSERT(memory_disk_make(&one, "trakone"));
    disk = one.disk;
    get_device(disk_to_dev(real_disk(disk)));
    memory_disk_remove(&one);
    EXPECT(os_disk_queue(disk) && os_queue_data(os_disk_queue(disk)) == &one);
    put_disk(real_disk(disk));
}

static void a_stacked_disk_passes_requests_through(void) {
    struct os_bdev *above, *below;

    ASSERT(memory_disk_make(&one, "trakone"));
    if (!memory_disk_make(&two, "traktwo"))
        goto no_two;
    below = os_open_by_devnum(one.dev, both);
    above = os_open_by_devnum(two.dev, both);
    if (EXPECT(!os_is_err(below) && !os_is_err(above))) {
        two.redirect = below;
        os_queue_copy_limits(two.queue, one.queue);
        memset(buffer, 0x5a, sizeof(buffer));
        EXPECT(move_page(above, OS_BIO_WRITE, 24, buffer) == 0);
        EXPECT(one.requests == 1 && two.requests == 1);
        memset(buffer, 0, sizeof(buffer));
        EXPECT(move_page(below, 0, 24, buffer) == 0 && holds(0x5a));
        EXPECT(move_page(above, 0, 32, buffer) == 0 && holds(0));
        EXPECT(move_page(above, 0, memory_disk_bytes >> OS_SECTOR_SHIFT, buffer) == -EIO);
        EXPECT(two.requests == 2);
        os_blkdev_put(above, both);
        os_blkdev_put(below, both);
    }
    memory_disk_remove(&two);
no_two:
    memory_disk_remove(&one);
}

static void a_disk_that_is_opened_for_writing_is_claimed(void) {
    static char somebody[] = "somebody";
    struct block_device *other = NULL;
    compat_opened how;
    struct os_bdev *bdev;

    ASSERT(memory_disk_make(&one, "trakone"));
    bdev = os_open_by_devnum(one.dev, OS_FMODE_WRITE);
    if (EXPECT(!os_is_err(bdev))) {
        EXPECT(compat_bdev_open(one.dev, both, somebody, &other, &how) == -EBUSY);
        os_blkdev_put(bdev, both);
    }
    if (EXPECT(compat_bdev_open(one.dev, both, somebody, &other, &how) == 0)) {
        /* Opened all the same; that it is in use shows in its openers. */
        bdev = os_open_by_devnum(one.dev, OS_FMODE_WRITE);
        if (EXPECT(!os_is_err(bdev))) {
            EXPECT(os_bdev_openers(bdev) == 2);
            os_blkdev_put(bdev, both);
        }
        compat_bdev_close(other, how);
    }
    memory_disk_remove(&one);
}

static void a_device_without_a_file_system_freezes_to_nothing(void) {
    struct os_bdev *bdev;

    ASSERT(memory_disk_make(&one, "trakone"));
    bdev = os_open_by_devnum(one.dev, both);
    if (EXPECT(!os_is_err(bdev))) {
        EXPECT(!os_get_super(bdev));
        EXPECT(!os_freeze_bdev(bdev));
        EXPECT(os_thaw_bdev(bdev, NULL) == 0);
        EXPECT(os_fsync_bdev(bdev) == 0);
        os_invalidate_bdev(bdev);
        EXPECT(os_bdev_ioctl(bdev, both, 0x1234, 77) == 77);
        os_blkdev_put(bdev, both);
    }
    memory_disk_remove(&one);
}

static void drain_one(void *rc) {
    WRITE_ONCE(*(int *)rc, os_disk_drain(one.disk, 3600000));
}

/* One write is kept under way, another one comes and ends. */
static void drain_around(struct os_bdev *bdev) {
    struct contract_thread drainer;
    int rc = 1;

    EXPECT(os_disk_drain(one.disk, 50) == -EAGAIN);
    if (EXPECT(contract_start(&drainer, drain_one, &rc) > 0)) {
        EXPECT(move_page(bdev, OS_BIO_WRITE, 8, buffer) == 0);
        EXPECT(os_disk_drain(one.disk, 50) == -EAGAIN);
        EXPECT(READ_ONCE(rc) == 1);
        os_bio_endio(one.kept, 0);
        contract_join(&drainer);
        EXPECT(rc == 0);
    }
    EXPECT(os_disk_drain(one.disk, 0) == 0);
}

static void a_drain_waits_for_the_requests_that_came_before(void) {
    struct os_page *page = os_alloc_page(OS_GFP_KERNEL);
    struct os_bdev *bdev;
    struct os_bio *bio;

    ASSERT(page && memory_disk_make(&one, "trakone"));
    EXPECT(os_disk_drain(one.disk, 0) == 0);
    bdev = os_open_by_devnum(one.dev, both);
    if (EXPECT(!os_is_err(bdev))) {
        bio = os_bio_alloc(OS_GFP_KERNEL, 1);
        if (EXPECT(bio && os_bio_add_page(bio, page, OS_PAGE_SIZE, 0))) {
            os_bio_set_bdev(bio, bdev);
            one.keep = true;
            os_submit_bio(OS_BIO_WRITE, bio);
            if (EXPECT(one.kept))
                drain_around(bdev);
            os_bio_put(bio);
        }
        os_blkdev_put(bdev, both);
    }
    memory_disk_remove(&one);
    os_free_page(page);
}

const struct contract_test disk_tests[] = {
    CONTRACT(disk, opens_and_releases_reach_the_driver_and_are_counted),
    CONTRACT(disk, the_drivers_error_reaches_who_opens),
    CONTRACT(disk, a_disk_that_was_never_added_is_given_back),
    CONTRACT(disk, a_disk_that_was_taken_away_still_has_its_record_for_who_refers_to_it),
    CONTRACT(disk, a_stacked_disk_passes_requests_through),
    CONTRACT(disk, a_disk_that_is_opened_for_writing_is_claimed),
    CONTRACT(disk, a_drain_waits_for_the_requests_that_came_before),
    CONTRACT(disk, a_device_without_a_file_system_freezes_to_nothing),
    {},
};
