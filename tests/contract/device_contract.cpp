// tests/contract/device_contract.cpp: what os/bdev.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/contract/platform.h"

namespace contract::device_tests {

namespace {

constexpr std::uint32_t kBoth = OS_FMODE_READ | OS_FMODE_WRITE;
constexpr std::uint64_t kDiskSize = 1 << 20;

}  // namespace

TEST(device, number_is_made_of_major_and_minor) {
    EXPECT_EQ(os_mkdev(8, 1), 0x800001u);
    EXPECT_EQ(os_major(os_mkdev(259, 0xfffff)), 259u);
    EXPECT_EQ(os_minor(os_mkdev(259, 0xfffff)), 0xfffffu);
}

TEST(device, open_disk_tells_number_size_and_block_size) {
    run([] {
        os_dev_t dev = make_disk(kDiskSize, 512);
        os_bdev *bdev = os_open_by_devnum(dev, kBoth);
        ASSERT_FALSE(os_is_err(bdev));
        EXPECT_EQ(os_bdev_dev(bdev), dev);
        EXPECT_EQ(os_bdev_size(bdev), kDiskSize);
        EXPECT_EQ(os_bdev_block_size(bdev), 512u);
        EXPECT_NE(os_bdev_disk(bdev), nullptr);
        EXPECT_NE(os_bdev_queue(bdev), nullptr);
        EXPECT_EQ(os_disk_queue(os_bdev_disk(bdev)), os_bdev_queue(bdev));
        os_blkdev_put(bdev, kBoth);
    });
}

TEST(device, open_for_reading_alone_and_for_writing_alone_works) {
    run([] {
        os_dev_t dev = make_disk(kDiskSize, 512);
        for (std::uint32_t mode : {OS_FMODE_READ, OS_FMODE_WRITE}) {
            os_bdev *bdev = os_open_by_devnum(dev, mode);
            ASSERT_FALSE(os_is_err(bdev));
            os_blkdev_put(bdev, kBoth);  // whatever mode it was opened with
        }
    });
}

TEST(device, open_of_a_number_without_a_device_fails) {
    run([] {
        os_bdev *bdev = os_open_by_devnum(os_mkdev(3999, 12345), OS_FMODE_READ);
        ASSERT_TRUE(os_is_err(bdev));
        EXPECT_LT(os_ptr_err(bdev), 0);
    });
}

TEST(device, openers_are_counted) {
    run([] {
        os_dev_t dev = make_disk(kDiskSize, 512);
        os_bdev *first = os_open_by_devnum(dev, kBoth);
        ASSERT_FALSE(os_is_err(first));
        std::uint32_t alone = os_bdev_openers(first);
        EXPECT_GE(alone, 1u);
        os_bdev *second = os_open_by_devnum(dev, OS_FMODE_READ);
        ASSERT_FALSE(os_is_err(second));
        EXPECT_EQ(os_bdev_openers(first), alone + 1);
        os_blkdev_put(second, kBoth);
        EXPECT_EQ(os_bdev_openers(first), alone);
        os_blkdev_put(first, kBoth);
    });
}

TEST(device, no_file_system_means_no_super_block_and_nothing_to_freeze) {
    run([] {
        os_bdev *bdev = os_open_by_devnum(make_disk(kDiskSize, 512), kBoth);
        ASSERT_FALSE(os_is_err(bdev));
        EXPECT_EQ(os_get_super(bdev), nullptr);
        os_super *frozen = os_freeze_bdev(bdev);
        EXPECT_EQ(frozen, nullptr);
        EXPECT_EQ(os_thaw_bdev(bdev, frozen), 0);
        os_blkdev_put(bdev, kBoth);
    });
}

TEST(device, fsync_and_invalidate_of_an_open_disk_succeed) {
    run([] {
        os_bdev *bdev = os_open_by_devnum(make_disk(kDiskSize, 512), kBoth);
        ASSERT_FALSE(os_is_err(bdev));
        EXPECT_EQ(os_fsync_bdev(bdev), 0);
        os_invalidate_bdev(bdev);
        os_blkdev_put(bdev, kBoth);
    });
}

TEST(device, unplug_of_no_queue_and_of_an_idle_one_does_nothing) {
    run([] {
        os_queue_unplug(nullptr);
        os_bdev *bdev = os_open_by_devnum(make_disk(kDiskSize, 512), kBoth);
        ASSERT_FALSE(os_is_err(bdev));
        os_queue_unplug(os_bdev_queue(bdev));
        os_blkdev_put(bdev, kBoth);
    });
}

TEST(device, a_larger_logical_block_is_told) {
    run([] {
        os_bdev *bdev = os_open_by_devnum(make_disk(kDiskSize, 512), kBoth);
        ASSERT_FALSE(os_is_err(bdev));
        std::uint32_t block = os_bdev_block_size(bdev);
        EXPECT_EQ(block & (block - 1), 0u);
        os_blkdev_put(bdev, kBoth);
    });
}

TEST(device, a_program_reads_what_a_program_wrote) {
    run([] {
        int err = 0;
        os_bdev *bdev = open_device(make_disk(kDiskSize, 512), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        Bytes out(10 * 512, 0x3c), in(10 * 512);
        EXPECT_EQ(request(bdev, OS_BIO_WRITE, 7, out), 0);
        EXPECT_EQ(request(bdev, 0, 7, in), 0);
        EXPECT_EQ(in, out);
        close_device(bdev, kBoth);
    });
}

}  // namespace contract::device_tests
