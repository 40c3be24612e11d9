// tests/unit/utils/bdev_test.cpp: opening disks and reading their blocks
// SPDX-License-Identifier: GPL-2.0-only
#include <utility>

#include "driver/utils/trak_utils.h"
#include "os/disk.h"
#include "tests/support/sim_run.h"

namespace {

constexpr os_dev_t dev = (8u << 20) | 1;
constexpr std::uint64_t disk_size = 1 << 20;

sim::Bytes block_pattern(std::uint64_t seed, std::size_t size) {
    sim::Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(seed * 31 + i * 7 + i / 251);
    return bytes;
}

void with_disk(const std::function<void(sim::Disk &, os_bdev *)> &fn) {
    sim::Storage storage;
    sim::Disk &disk = storage.add_disk("sda1", dev, disk_size, 512);
    disk.write(0, block_pattern(1, 65536));
    sim_run::boot(storage, [&] {
        os_bdev *bdev = trak_open_bdev(dev, OS_FMODE_READ);
        ASSERT_NE(bdev, nullptr);
        fn(disk, bdev);
        trak_close_bdev(bdev);
    });
}

TEST(bdev, disk_is_opened_by_number_in_either_mode) {
    sim::Storage storage;
    storage.add_disk("sda1", dev, disk_size, 512);
    sim_run::boot(storage, [] {
        for (const std::uint32_t mode : {OS_FMODE_READ, OS_FMODE_WRITE}) {
            os_bdev *bdev = trak_open_bdev(dev, mode);
            ASSERT_NE(bdev, nullptr);
            EXPECT_EQ(os_bdev_dev(bdev), dev);
            trak_close_bdev(bdev);
        }
    });
}

TEST(bdev, disk_that_can_not_be_opened_is_null_without_a_message) {
    sim::Storage storage;
    storage.add_disk("sda1", dev, disk_size, 512);
    sim_run::boot(storage, [] {
        EXPECT_EQ(trak_open_bdev(os_mkdev(8, 9), OS_FMODE_READ), nullptr);
        sim::fail_nth(sim::Fault::kOpen, 1);
        EXPECT_EQ(trak_open_bdev(dev, OS_FMODE_READ), nullptr);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(bdev, mounted_disk_is_recognised) {
    with_disk([](sim::Disk &disk, os_bdev *bdev) {
        EXPECT_EQ(trak_is_mounted(bdev), 0);
        disk.set_mounted(true);
        EXPECT_EQ(trak_is_mounted(bdev), 1);
        disk.set_mounted(false);
        EXPECT_EQ(trak_is_mounted(bdev), 0);
    });
}

TEST(bread, blocks_are_read_packed_and_in_order) {
    with_disk([](sim::Disk &disk, os_bdev *bdev) {
        sim::Bytes got(5 * 1024, 0);
        EXPECT_EQ(trak_bread(bdev, got.data(), 1024, 3, 5), 0);
        EXPECT_EQ(got, disk.read(3 * 1024, 5 * 1024));
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(bread, block_number_times_size_is_where_it_is_read) {
    with_disk([](sim::Disk &disk, os_bdev *bdev) {
        const sim::Bytes marked = block_pattern(9, 1024);
        disk.write(6 * 512, marked);
        sim::Bytes got(1024, 0);
        EXPECT_EQ(trak_bread(bdev, got.data(), 1024, 3, 1), 0);
        EXPECT_EQ(got, marked);
    });
}

TEST(bread, block_size_of_a_page_is_accepted_and_one_byte_more_refused) {
    with_disk([](sim::Disk &disk, os_bdev *bdev) {
        sim::Bytes got(4096, 0);
        EXPECT_EQ(trak_bread(bdev, got.data(), 4096, 1, 1), 0);
        EXPECT_EQ(got, disk.read(4096, 4096));
        for (const int size : {4097, 8192, -1, INT32_MIN}) {
            sim::clear_log();
            EXPECT_EQ(trak_bread(bdev, got.data(), size, 0, 1), -EINVAL);
            EXPECT_LOGGED_ERROR("trak_bread(): Block size cannot be larger than page size (4096)");
        }
    });
}

TEST(bread, count_of_zero_or_less_touches_neither_disk_nor_buffer) {
    with_disk([](sim::Disk &, os_bdev *bdev) {
        sim::Bytes got(4096, 0xaa);
        const std::uint64_t reads = sim::fault_points(sim::Fault::kRead);
        EXPECT_EQ(trak_bread(bdev, got.data(), 4096, 0, 0), 0);
        EXPECT_EQ(trak_bread(bdev, got.data(), 4096, 0, -3), 0);
        EXPECT_EQ(got, sim::Bytes(4096, 0xaa));
        EXPECT_EQ(sim::fault_points(sim::Fault::kRead), reads);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(bread, first_block_that_fails_is_named_and_those_before_it_are_there) {
    with_disk([](sim::Disk &disk, os_bdev *bdev) {
        disk.fail_sectors(10, 11, false);
        sim::Bytes got(8 * 1024, 0xaa);
        EXPECT_EQ(trak_bread(bdev, got.data(), 1024, 2, 8), -EIO);
        EXPECT_LOGGED_ERROR("trak_bread(): Failed to read 1024-byte block #5");
        EXPECT_EQ(sim::count_log("ERROR"), 1u);
        sim::Bytes expected = disk.read(2 * 1024, 3 * 1024);
        expected.resize(8 * 1024, 0xaa);
        EXPECT_EQ(got, expected);
    });
}

TEST(bread, reading_beyond_the_end_of_the_disk_is_eio) {
    with_disk([](sim::Disk &, os_bdev *bdev) {
        sim::Bytes got(2 * 4096);
        EXPECT_EQ(trak_bread(bdev, got.data(), 4096, 255, 2), -EIO);
        EXPECT_LOGGED_ERROR("trak_bread(): Failed to read 4096-byte block #256");
        EXPECT_EQ(trak_bread(bdev, got.data(), 4096, -1, 1), -EIO);
        EXPECT_LOGGED_ERROR("trak_bread(): Failed to read 4096-byte block #-1");
        EXPECT_EQ(trak_bread(bdev, got.data(), 4096, INT64_MAX, 1), -EIO);
        EXPECT_LOGGED_ERROR("trak_bread(): Failed to read 4096-byte block #9223372036854775807");
    });
}

TEST(bread, each_failed_allocation_is_enomem_and_logged) {
    for (std::uint64_t nth = 1; nth <= 2; ++nth) {
        with_disk([&](sim::Disk &, os_bdev *bdev) {
            trak_log(TRAK_LOG_MILESTONE, "%s(): first message", "test");
            sim::Bytes got(4096, 0xaa);
            sim::fail_nth(sim::Fault::kAlloc, nth);
            EXPECT_EQ(trak_bread(bdev, got.data(), 4096, 0, 1), -ENOMEM);
            EXPECT_LOGGED_ERROR("trak_bread(): Memory allocation failed.");
            EXPECT_EQ(got, sim::Bytes(4096, 0xaa));
        });
    }
}

TEST(bread, any_failing_read_of_many_is_eio) {
    for (std::uint64_t nth = 1; nth <= 8; ++nth) {
        with_disk([&](sim::Disk &, os_bdev *bdev) {
            sim::Bytes got(8 * 512);
            sim::fail_nth(sim::Fault::kRead, nth);
            EXPECT_EQ(trak_bread(bdev, got.data(), 512, 0, 8), -EIO);
            EXPECT_LOGGED_ERROR("trak_bread(): Failed to read 512-byte block #" +
                                std::to_string(nth - 1));
        });
    }
}

// A disk of this test's own, whose queue holds requests back until it is unplugged.
struct Plugged {
    os_bio *waiting = nullptr;
    int unplugs = 0;

    static Plugged &of(os_queue *queue) { return *static_cast<Plugged *>(os_queue_data(queue)); }
    static int take(os_queue *queue, os_bio *bio) {
        of(queue).waiting = bio;
        return 0;
    }
    static void unplug(os_queue *queue) {
        Plugged &self = of(queue);
        self.unplugs++;
        if (os_bio *bio = std::exchange(self.waiting, nullptr))
            os_bio_endio(bio, 0);
    }
    static int open(os_bdev *, std::uint32_t) { return 0; }
    static int release(os_disk *, std::uint32_t) { return 0; }
};

TEST(bread, each_block_is_read_without_waiting_for_more) {
    sim_run::boot([] {
        static const os_block_device_operations operations = {Plugged::open, Plugged::release,
                                                              nullptr};
        ASSERT_EQ(os_register_blkdev(77, "test"), 0);
        Plugged plugged;
        os_disk *disk = os_alloc_disk(1);
        os_queue *queue = os_alloc_queue(OS_GFP_KERNEL);
        os_disk_setup(disk, 77, 0, "test", &operations);
        os_disk_set_capacity(disk, 64);
        os_queue_make_request(queue, Plugged::take);
        os_queue_set_unplug(queue, Plugged::unplug);
        os_queue_set_data(queue, &plugged);
        os_disk_set_queue(disk, queue);
        ASSERT_EQ(os_add_disk(disk), 0);
        os_bdev *bdev = trak_open_bdev(os_mkdev(77, 0), OS_FMODE_READ);
        ASSERT_NE(bdev, nullptr);
        sim::Bytes got(3 * 1024);
        EXPECT_EQ(trak_bread(bdev, got.data(), 1024, 0, 3), 0);
        EXPECT_EQ(plugged.unplugs, 3);
        trak_close_bdev(bdev);
        os_del_gendisk(disk);
        os_cleanup_queue(queue);
        os_put_disk(disk);
        os_unregister_blkdev(77, "test");
    });
}

TEST(bread, device_or_buffer_that_is_null_is_a_bug) {
    EXPECT_NE(sim_run::failure_of([] {
                  char buf[512];
                  (void)trak_bread(nullptr, buf, 512, 0, 0);
              }),
              "");
    sim::Storage storage;
    storage.add_disk("sda1", dev, disk_size, 512);
    EXPECT_THROW(sim_run::boot(storage,
                               [] {
                                   os_bdev *bdev = trak_open_bdev(dev, OS_FMODE_READ);
                                   (void)trak_bread(bdev, nullptr, 512, 0, 0);
                               }),
                 sim::Failure);
}

TEST(bread, several_readers_get_their_own_blocks) {
    sim::for_each_seed(20, [&](std::uint64_t seed) {
        sim::Storage storage;
        sim::Disk &disk = storage.add_disk("sda1", dev, disk_size, 512);
        disk.write(0, block_pattern(1, 65536));
        sim_run::boot(
            storage,
            [&] {
                os_bdev *bdev = trak_open_bdev(dev, OS_FMODE_READ);
                ASSERT_NE(bdev, nullptr);
                std::vector<sim::Process *> readers;
                for (std::int64_t r = 0; r < 4; ++r)
                    readers.push_back(sim::spawn("reader", [&, r] {
                        sim::Bytes got(3 * 2048);
                        EXPECT_EQ(trak_bread(bdev, got.data(), 2048, 3 * r, 3), 0);
                        EXPECT_EQ(got, disk.read(static_cast<std::uint64_t>(r) * 6144, 6144));
                    }));
                for (sim::Process *reader : readers)
                    sim::join(reader);
                trak_close_bdev(bdev);
            },
            seed);
    });
}

}  // namespace
