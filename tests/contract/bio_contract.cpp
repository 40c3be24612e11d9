// tests/contract/bio_contract.cpp: what os/bio.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <cstring>

#include "tests/contract/platform.h"

namespace contract::bio_tests {

namespace {

constexpr std::uint64_t kDiskSize = 1 << 20;

// A bio with one page that is waited for.
struct OnePage {
    os_page *page = os_alloc_page(OS_GFP_KERNEL);
    os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
    os_completion done;
    int error = 1;
    int calls = 0;

    void aim(os_bdev *bdev, std::uint64_t sector, std::uint32_t len) {
        os_init_completion(&done);
        os_bio_set_bdev(bio, bdev);
        os_bio_set_sector(bio, sector);
        EXPECT_TRUE(os_bio_add_page(bio, page, len, 0));
        os_bio_set_private(bio, this);
        os_bio_set_end_io(bio, [](os_bio *ended, int err) {
            auto *self = static_cast<OnePage *>(os_bio_private(ended));
            self->error = err;
            self->calls++;
            os_complete(&self->done);
        });
    }
    int submit(std::uint32_t rw) {
        os_submit_bio(rw, bio);
        os_queue_unplug(os_bdev_queue(os_bio_bdev(bio)));
        os_wait_for_completion(&done);
        return error;
    }
    unsigned char *bytes() { return static_cast<unsigned char *>(os_page_address(page)); }
    ~OnePage() {
        os_bio_put(bio);
        os_free_page(page);
    }
};

os_bdev *open_disk(os_dev_t dev) {
    os_bdev *bdev = os_open_by_devnum(dev, OS_FMODE_READ | OS_FMODE_WRITE);
    EXPECT_FALSE(os_is_err(bdev));
    return bdev;
}

int g_destroyed;
os_bio_destructor_fn g_saved;

void count_and_destroy(os_bio *bio) {
    g_destroyed++;
    os_bio_set_destructor(bio, g_saved);
    g_saved(bio);
}

}  // namespace

TEST(bio, new_bio_is_empty_and_aims_nowhere) {
    run([] {
        os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 3);
        ASSERT_NE(bio, nullptr);
        EXPECT_EQ(os_bio_sector(bio), 0u);
        EXPECT_EQ(os_bio_size(bio), 0u);
        EXPECT_EQ(os_bio_vcnt(bio), 0u);
        EXPECT_EQ(os_bio_idx(bio), 0u);
        EXPECT_EQ(os_bio_rw(bio), 0u);
        EXPECT_EQ(os_bio_bdev(bio), nullptr);
        EXPECT_EQ(os_bio_private(bio), nullptr);
        EXPECT_EQ(os_bio_end_io(bio), nullptr);
        EXPECT_FALSE(os_bio_uptodate(bio));
        os_bio_put(bio);
    });
}

TEST(bio, pages_are_added_until_there_is_no_room) {
    run([] {
        os_page *page = os_alloc_page(OS_GFP_KERNEL);
        os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 2);
        ASSERT_TRUE(page && bio);
        EXPECT_TRUE(os_bio_add_page(bio, page, 512, 1024));
        EXPECT_TRUE(os_bio_add_page(bio, page, OS_PAGE_SIZE, 0));
        EXPECT_FALSE(os_bio_add_page(bio, page, 512, 0));
        EXPECT_EQ(os_bio_vcnt(bio), 2u);
        EXPECT_EQ(os_bio_size(bio), 512u + OS_PAGE_SIZE);
        os_bio_vec vec = os_bio_vec_at(bio, 0);
        EXPECT_EQ(vec.page, page);
        EXPECT_EQ(vec.len, 512u);
        EXPECT_EQ(vec.offset, 1024u);
        os_bio_put(bio);
        os_free_page(page);
    });
}

TEST(bio, what_is_set_is_what_is_told) {
    run([] {
        os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
        ASSERT_NE(bio, nullptr);
        os_bio_set_sector(bio, std::uint64_t{1} << 40);
        os_bio_set_rw(bio, OS_BIO_WRITE | OS_BIO_FUA);
        os_bio_set_idx(bio, 3);
        os_bio_set_private(bio, &g_destroyed);
        EXPECT_EQ(os_bio_sector(bio), std::uint64_t{1} << 40);
        EXPECT_EQ(os_bio_rw(bio), static_cast<unsigned>(OS_BIO_WRITE | OS_BIO_FUA));
        EXPECT_EQ(os_bio_idx(bio), 3u);
        EXPECT_EQ(os_bio_private(bio), &g_destroyed);
        os_bio_put(bio);
    });
}

TEST(bio, clone_shares_pages_and_has_its_own_end) {
    run([] {
        os_bdev *bdev = open_disk(make_disk(kDiskSize, 512));
        OnePage parent;
        parent.aim(bdev, 5, 1024);
        os_bio_set_rw(parent.bio, OS_BIO_WRITE);
        os_bio *clone = os_bio_clone(parent.bio, OS_GFP_NOIO);
        ASSERT_NE(clone, nullptr);
        EXPECT_EQ(os_bio_bdev(clone), bdev);
        EXPECT_EQ(os_bio_sector(clone), 5u);
        EXPECT_EQ(os_bio_size(clone), 1024u);
        EXPECT_EQ(os_bio_rw(clone), static_cast<unsigned>(OS_BIO_WRITE));
        EXPECT_EQ(os_bio_vcnt(clone), 1u);
        EXPECT_EQ(os_bio_vec_at(clone, 0).page, parent.page);
        EXPECT_EQ(os_bio_end_io(clone), nullptr);
        EXPECT_EQ(os_bio_private(clone), nullptr);
        EXPECT_NE(os_bio_destructor(clone), nullptr);
        os_bio_put(clone);
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    });
}

TEST(bio, replaced_destructor_runs_once_when_the_last_reference_goes) {
    run([] {
        OnePage parent;
        os_bio *clone = os_bio_clone(parent.bio, OS_GFP_KERNEL);
        ASSERT_NE(clone, nullptr);
        g_destroyed = 0;
        g_saved = os_bio_destructor(clone);
        os_bio_set_destructor(clone, count_and_destroy);
        EXPECT_EQ(os_bio_destructor(clone), count_and_destroy);
        os_bio_put(clone);
        EXPECT_EQ(g_destroyed, 1);
    });
}

TEST(bio, written_sectors_are_read_back) {
    run([] {
        os_bdev *bdev = open_disk(make_disk(kDiskSize, 512));
        {
            OnePage out, in;
            out.aim(bdev, 9, 1536);
            std::memset(out.bytes(), 0x5a, 1536);
            EXPECT_EQ(out.submit(OS_BIO_WRITE), 0);
            EXPECT_TRUE(os_bio_uptodate(out.bio));
            EXPECT_EQ(out.calls, 1);
            in.aim(bdev, 8, OS_PAGE_SIZE);
            std::memset(in.bytes(), 0xff, OS_PAGE_SIZE);
            EXPECT_EQ(in.submit(0), 0);
            EXPECT_EQ(in.bytes()[0], 0);
            EXPECT_EQ(in.bytes()[512], 0x5a);
            EXPECT_EQ(in.bytes()[2047], 0x5a);
            EXPECT_EQ(in.bytes()[2048], 0);
        }
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    });
}

TEST(bio, request_beyond_the_end_ends_with_eio) {
    run([] {
        os_bdev *bdev = open_disk(make_disk(kDiskSize, 512));
        {
            OnePage over, beyond, far;
            over.aim(bdev, kDiskSize / 512 - 1, 1024);
            EXPECT_EQ(over.submit(0), -EIO);
            EXPECT_FALSE(os_bio_uptodate(over.bio));
            beyond.aim(bdev, kDiskSize / 512, 512);
            EXPECT_EQ(beyond.submit(OS_BIO_WRITE), -EIO);
            far.aim(bdev, ~std::uint64_t{0} - 1, 1024);
            EXPECT_EQ(far.submit(0), -EIO);
        }
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    });
}

TEST(bio, last_sector_is_served) {
    run([] {
        os_bdev *bdev = open_disk(make_disk(kDiskSize, 512));
        {
            OnePage last;
            last.aim(bdev, kDiskSize / 512 - 1, 512);
            EXPECT_EQ(last.submit(OS_BIO_WRITE), 0);
        }
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    });
}

TEST(bio, reset_readies_a_bio_for_another_use) {
    run([] {
        os_bdev *bdev = open_disk(make_disk(kDiskSize, 512));
        {
            OnePage page;
            for (int i = 0; i < 3; i++) {
                page.aim(bdev, static_cast<std::uint64_t>(i), 512);
                EXPECT_EQ(page.submit(OS_BIO_WRITE), 0);
                os_bio_reset(page.bio);
                EXPECT_EQ(os_bio_vcnt(page.bio), 0u);
                EXPECT_EQ(os_bio_size(page.bio), 0u);
                EXPECT_EQ(os_bio_sector(page.bio), 0u);
                EXPECT_EQ(os_bio_private(page.bio), nullptr);
                EXPECT_FALSE(os_bio_uptodate(page.bio));
            }
        }
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    });
}

TEST(bio, flush_without_data_is_a_request_of_its_own) {
    run([] {
        os_bdev *bdev = open_disk(make_disk(kDiskSize, 512));
        {
            OnePage page;
            page.aim(bdev, 0, 512);
            EXPECT_EQ(page.submit(OS_BIO_WRITE), 0);
        }
        os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 0);
        ASSERT_NE(bio, nullptr);
        static os_completion done;
        static int error;
        os_init_completion(&done);
        os_bio_set_bdev(bio, bdev);
        os_bio_set_end_io(bio, [](os_bio *, int err) {
            error = err;
            os_complete(&done);
        });
        os_submit_bio(OS_BIO_WRITE | OS_BIO_FLUSH, bio);
        os_wait_for_completion(&done);
        EXPECT_EQ(error, 0);
        os_bio_put(bio);
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    });
}

TEST(bio, forced_unit_access_writes_are_served) {
    run([] {
        os_bdev *bdev = open_disk(make_disk(kDiskSize, 512));
        {
            OnePage page;
            page.aim(bdev, 3, 512);
            EXPECT_EQ(page.submit(OS_BIO_WRITE | OS_BIO_FUA), 0);
        }
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    });
}

TEST(bio, endio_ends_a_bio_with_its_error) {
    run([] {
        for (int error : {0, -EIO, -EROFS}) {
            OnePage page;
            page.aim(nullptr, 0, 512);
            os_bio_endio(page.bio, error);
            EXPECT_EQ(page.error, error);
            EXPECT_EQ(page.calls, 1);
            EXPECT_EQ(os_bio_uptodate(page.bio), error == 0);
        }
    });
}

TEST(bio, endio_without_an_end_function_is_allowed) {
    run([] {
        os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 0);
        ASSERT_NE(bio, nullptr);
        os_bio_endio(bio, 0);
        EXPECT_TRUE(os_bio_uptodate(bio));
        os_bio_put(bio);
    });
}

TEST(bio, several_under_way_end_once_each) {
    run([] {
        os_bdev *bdev = open_disk(make_disk(kDiskSize, 512));
        {
            OnePage pages[8];
            for (unsigned i = 0; i < 8; i++) {
                pages[i].aim(bdev, 8u * i, OS_PAGE_SIZE);
                std::memset(pages[i].bytes(), static_cast<int>(i + 1), OS_PAGE_SIZE);
                os_submit_bio(OS_BIO_WRITE, pages[i].bio);
            }
            os_queue_unplug(os_bdev_queue(bdev));
            for (OnePage &page : pages) {
                os_wait_for_completion(&page.done);
                EXPECT_EQ(page.error, 0);
                EXPECT_EQ(page.calls, 1);
            }
            OnePage check;
            check.aim(bdev, 8 * 5, OS_PAGE_SIZE);
            EXPECT_EQ(check.submit(0), 0);
            EXPECT_EQ(check.bytes()[100], 6);
        }
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    });
}

TEST(bio, a_clone_may_be_submitted_and_ended_for_its_parent) {
    run([] {
        os_bdev *bdev = open_disk(make_disk(kDiskSize, 512));
        {
            OnePage parent;
            parent.aim(bdev, 2, 512);
            os_bio_set_rw(parent.bio, OS_BIO_WRITE);
            std::memset(parent.bytes(), 0x77, 512);
            os_bio *clone = os_bio_clone(parent.bio, OS_GFP_NOIO);
            ASSERT_NE(clone, nullptr);
            os_bio_set_private(clone, parent.bio);
            os_bio_set_end_io(clone, [](os_bio *ended, int err) {
                os_bio_endio(static_cast<os_bio *>(os_bio_private(ended)), err);
                os_bio_put(ended);
            });
            os_generic_make_request(clone);
            os_wait_for_completion(&parent.done);
            EXPECT_EQ(parent.error, 0);
            OnePage check;
            check.aim(bdev, 2, 512);
            EXPECT_EQ(check.submit(0), 0);
            EXPECT_EQ(check.bytes()[511], 0x77);
        }
        os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    });
}

}  // namespace contract::bio_tests
