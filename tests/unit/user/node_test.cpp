// tests/unit/user/node_test.cpp: disks that a driver makes, opened, used and taken away at once
// SPDX-License-Identifier: GPL-2.0-only
#include "os/disk.h"

#include <thread>

#include "os/lock.h"
#include "os/task.h"
#include "user_testing.h"

namespace {

using user_testing::Bytes;
using user_testing::pattern;

// A driver of one node over one disk: what every request does is go on to the disk.
struct PassThrough {
    static constexpr std::uint32_t kMajor = 400, kMinor = 5;

    os_disk *disk = nullptr;
    os_queue *queue = nullptr;
    static inline std::atomic<os_bdev *> below{nullptr};
    static inline std::atomic<bool> exists{false};
    static inline std::atomic<int> opens{0};
    static inline std::atomic<int> use_count{0};
    static inline std::atomic<int> open_result{0};
    static inline os_semaphore table;  // held while a node comes, goes or is opened

    static int open(os_bdev *, std::uint32_t) {
        os_down(&table);
        int rc = exists ? open_result.load() : -EINVAL;
        if (!rc) {
            opens++;
            use_count++;
        }
        os_up(&table);
        return rc;
    }
    static int release(os_disk *disk, std::uint32_t) {
        EXPECT_EQ(os_disk_first_minor(disk), kMinor);
        os_down(&table);
        use_count--;
        os_up(&table);
        return 0;
    }
    static int ioctl(os_bdev *, std::uint32_t, std::uint32_t cmd, os_uaddr) {
        return cmd == 7 ? 77 : -ENOTTY;
    }
    static int make_request(os_queue *queue, os_bio *bio) {
        EXPECT_NE(os_queue_data(queue), nullptr);
        os_bio_set_bdev(bio, below);
        os_generic_make_request(bio);
        return 0;
    }

    static const os_block_device_operations ops;

    static os_dev_t dev() { return os_mkdev(kMajor, kMinor); }
    void add(std::uint64_t sectors) {
        os_down(&table);
        disk = os_alloc_disk(1);
        queue = os_alloc_queue(OS_GFP_KERNEL);
        os_disk_setup(disk, kMajor, kMinor, "trak5", &ops);
        os_disk_set_capacity(disk, sectors);
        os_queue_make_request(queue, make_request);
        os_queue_set_data(queue, this);
        os_disk_set_queue(disk, queue);
        EXPECT_EQ(os_add_disk(disk), 0);
        exists = true;
        os_up(&table);
    }
    // False while somebody has it open.
    bool remove() {
        os_down(&table);
        bool idle = use_count == 0;
        if (idle) {
            exists = false;
            os_del_gendisk(disk);
            os_cleanup_queue(queue);
            os_put_disk(disk);
        }
        os_up(&table);
        return idle;
    }
};

const os_block_device_operations PassThrough::ops = {open, release, ioctl};

class user_node : public user_testing::ImageTest {
  protected:
    void SetUp() override {
        ImageTest::SetUp();
        os_sema_init(&PassThrough::table, 1);
        PassThrough::opens = PassThrough::use_count = PassThrough::open_result = 0;
        ASSERT_EQ(os_register_blkdev(PassThrough::kMajor, "test"), 0);
        ASSERT_NO_FATAL_FAILURE(open_image("/tmp", 1 << 20));
        PassThrough::below = disk_;
    }
    PassThrough node_;
};

TEST_F(user_node, majors_that_the_machine_has_or_that_are_taken_are_refused) {
    EXPECT_EQ(os_register_blkdev(PassThrough::kMajor, "other"), -EBUSY);
    EXPECT_EQ(os_register_blkdev(259, "blkext"), -EBUSY);  // every kernel has it
    EXPECT_EQ(os_register_blkdev(512, "large"), -EINVAL);
    EXPECT_EQ(os_register_blkdev(user::kImageMajor, "image"), -EINVAL);
    int any = os_register_blkdev(0, "any");
    EXPECT_GT(any, 0);
    os_unregister_blkdev(static_cast<std::uint32_t>(any), "any");
    os_unregister_blkdev(PassThrough::kMajor, "other");  // not its owner
    EXPECT_EQ(os_register_blkdev(PassThrough::kMajor, "other"), -EBUSY);
}

TEST_F(user_node, opening_it_runs_the_drivers_own_operations) {
    int err = 0;
    EXPECT_EQ(user::open_device(PassThrough::dev(), OS_FMODE_READ, &err), nullptr);
    EXPECT_EQ(err, -ENXIO);
    node_.add(100);
    PassThrough::open_result = -EIO;
    EXPECT_EQ(user::open_device(PassThrough::dev(), OS_FMODE_READ, &err), nullptr);
    EXPECT_EQ(err, -EIO);
    PassThrough::open_result = 0;
    os_bdev *first = user::open_device(PassThrough::dev(), OS_FMODE_READ, &err);
    os_bdev *second = os_open_by_devnum(PassThrough::dev(), OS_FMODE_WRITE);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_EQ(os_bdev_openers(first), 2u);
    EXPECT_EQ(PassThrough::use_count.load(), 2);
    EXPECT_EQ(os_bdev_size(first), 51200u);
    EXPECT_EQ(os_bdev_queue(first), node_.queue);
    EXPECT_EQ(os_disk_queue(os_bdev_disk(first)), node_.queue);
    EXPECT_EQ(user::device_ioctl(first, OS_FMODE_READ, 7, 0), 77);
    EXPECT_EQ(os_bdev_ioctl(disk_, OS_FMODE_READ, 7, 0), 0);  // an image has no operation
    user::close_device(first, OS_FMODE_READ);
    user::close_device(second, OS_FMODE_WRITE);
    EXPECT_EQ(PassThrough::use_count.load(), 0);
    EXPECT_TRUE(node_.remove());
}

TEST_F(user_node, nodes_and_their_limits_are_listed_while_they_exist) {
    EXPECT_TRUE(user::nodes().empty());
    node_.add(8);
    std::vector<user::NodeInfo> nodes = user::nodes();
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(nodes[0].disk_name, "trak5");
    EXPECT_EQ(nodes[0].size, 4096u);
    EXPECT_FALSE(nodes[0].read_only);
    EXPECT_FALSE(nodes[0].can_discard);
    os_queue_copy_limits(node_.queue, os_bdev_queue(disk_));
    os_disk_set_ro(node_.disk, 1);
    user::NodeInfo info;
    ASSERT_EQ(user::node_info(PassThrough::dev(), &info), 0);
    EXPECT_TRUE(info.can_discard);
    EXPECT_TRUE(info.can_zero);
    EXPECT_TRUE(info.read_only);
    EXPECT_TRUE(node_.remove());
    EXPECT_EQ(user::node_info(PassThrough::dev(), &info), -ENXIO);
}

TEST_F(user_node, requests_pass_through_it_to_the_disk) {
    node_.add(2048);
    int err = 0;
    os_bdev *bdev = user::open_device(PassThrough::dev(), 3, &err);
    ASSERT_NE(bdev, nullptr);
    Bytes data = pattern(10 * 4096, 4), back(data.size());
    EXPECT_EQ(user::submit_wait(bdev, OS_BIO_WRITE, 8192, data.data(), data.size()), 0);
    EXPECT_EQ(user::submit_wait(bdev, 0, 8192, back.data(), back.size()), 0);
    EXPECT_EQ(back, data);
    EXPECT_EQ(user::submit_wait(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, nullptr, 0), 0);
    EXPECT_EQ(os_fsync_bdev(bdev), 0);
    EXPECT_EQ(user_testing::file_bytes(file_, 8192, data.size()), data);
    EXPECT_EQ(user::submit_wait(bdev, 0, 2048 * 512, back.data(), 512), -EIO);
    user::close_device(bdev, 3);
    EXPECT_TRUE(node_.remove());
}

TEST_F(user_node, a_clone_shares_the_pages_and_ends_by_itself) {
    os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 2);
    os_page *page = os_alloc_page(OS_GFP_KERNEL);
    memset(os_page_address(page), 'c', OS_PAGE_SIZE);
    ASSERT_TRUE(os_bio_add_page(bio, page, 4096, 0));
    ASSERT_TRUE(os_bio_add_page(bio, page, 512, 1024));
    EXPECT_FALSE(os_bio_add_page(bio, page, 512, 0));
    os_bio_set_sector(bio, 16);
    os_bio_set_bdev(bio, disk_);
    os_bio_set_rw(bio, OS_BIO_WRITE | OS_BIO_FUA);
    os_bio *clone = os_bio_clone(bio, OS_GFP_NOIO);
    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(os_bio_vcnt(clone), 2u);
    EXPECT_EQ(os_bio_vec_at(clone, 1).offset, 1024u);
    EXPECT_EQ(os_bio_size(clone), 4608u);
    EXPECT_EQ(os_bio_sector(clone), 16u);
    EXPECT_EQ(os_bio_rw(clone), std::uint32_t{OS_BIO_WRITE | OS_BIO_FUA});
    EXPECT_EQ(os_bio_private(clone), nullptr);
    EXPECT_EQ(os_bio_end_io(clone), nullptr);
    os_completion done;
    os_init_completion(&done);
    os_bio_set_private(clone, &done);
    os_bio_set_end_io(clone, [](os_bio *b, int) {
        os_complete(static_cast<os_completion *>(os_bio_private(b)));
    });
    os_generic_make_request(clone);
    os_wait_for_completion(&done);
    EXPECT_TRUE(os_bio_uptodate(clone));
    EXPECT_FALSE(os_bio_uptodate(bio));
    os_bio_put(clone);
    os_bio_put(bio);
    os_free_page(page);
    EXPECT_EQ(user_testing::file_bytes(file_, 8192, 4608), Bytes(4608, 'c'));
}

// Openers and a driver that takes the node away and makes it anew, all the time.
TEST_F(user_node, opening_and_closing_race_with_taking_it_away) {
    std::atomic<bool> stop{false};
    std::atomic<int> opened{0}, wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; t++)
        threads.emplace_back([&, t] {
            Bytes data = pattern(4096, t), back(4096);
            while (!stop) {
                int err = 0;
                os_bdev *bdev = user::open_device(PassThrough::dev(), 3, &err);
                if (!bdev) {
                    wrong += err != -ENXIO && err != -EINVAL;
                    continue;
                }
                std::uint64_t at = static_cast<std::uint64_t>(t) * 4096;
                wrong += user::submit_wait(bdev, OS_BIO_WRITE, at, data.data(), 4096) != 0;
                wrong += user::submit_wait(bdev, 0, at, back.data(), 4096) != 0;
                wrong += back != data;
                opened++;
                user::close_device(bdev, 3);
                os_yield();
            }
        });
    int removed = 0;
    node_.add(2048);
    while (opened < 50 || removed < 20) {
        if (node_.remove()) {
            removed++;
            node_.add(2048);
        }
        os_yield();
    }
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(PassThrough::use_count.load(), 0);
    EXPECT_TRUE(node_.remove());
}

}  // namespace
