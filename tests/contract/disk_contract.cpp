// tests/contract/disk_contract.cpp: what os/disk.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>

#include "tests/contract/platform.h"

namespace contract::disk_tests {

namespace {

constexpr std::uint32_t kBoth = OS_FMODE_READ | OS_FMODE_WRITE;
constexpr std::uint64_t kSectors = 1024;

// A driver of one disk, kept in memory or stacked over a disk of the machine.
struct Driver {
    std::uint32_t major = 0;
    os_disk *disk = nullptr;
    os_queue *queue = nullptr;
    os_bdev *below = nullptr;
    std::atomic<int> opens{0}, releases{0}, requests{0}, unplugs{0};
    int open_result = 0;
    int end_with = 0;
    bool in_submitter = true;
    os_task *submitter = nullptr;
    std::vector<unsigned char> bytes = std::vector<unsigned char>(kSectors * 512);
    std::array<std::atomic<os_bio *>, 4> kept{};  // of keep_request
};

Driver *driver_of(const os_disk *disk) {
    return static_cast<Driver *>(os_queue_data(os_disk_queue(disk)));
}

int on_open(os_bdev *bdev, std::uint32_t) {
    Driver *driver = driver_of(os_bdev_disk(bdev));
    EXPECT_EQ(os_major(os_bdev_dev(bdev)), driver->major);
    EXPECT_FALSE(os_in_interrupt());
    if (driver->open_result == 0)
        driver->opens++;
    return driver->open_result;
}

int on_release(os_disk *disk, std::uint32_t) {
    Driver *driver = driver_of(disk);
    EXPECT_EQ(disk, driver->disk);
    driver->releases++;
    return 0;
}

int on_ioctl(os_bdev *, std::uint32_t, std::uint32_t cmd, os_uaddr arg) {
    return cmd == 0x1234 ? static_cast<int>(arg) : -ENOTTY;
}

constexpr os_block_device_operations kOps{on_open, on_release, on_ioctl};

// Serves the bio from memory.
int memory_request(os_queue *queue, os_bio *bio) {
    auto *driver = static_cast<Driver *>(os_queue_data(queue));
    driver->requests++;
    driver->in_submitter &= os_current() == driver->submitter && !os_in_interrupt();
    unsigned char *at = driver->bytes.data() + os_bio_sector(bio) * 512;
    for (std::uint32_t i = os_bio_idx(bio); i < os_bio_vcnt(bio) && !driver->end_with; i++) {
        os_bio_vec vec = os_bio_vec_at(bio, i);
        auto *page = static_cast<unsigned char *>(os_page_address(vec.page)) + vec.offset;
        if (os_bio_rw(bio) & OS_BIO_WRITE)
            std::memcpy(at, page, vec.len);
        else
            std::memcpy(page, at, vec.len);
        at += vec.len;
    }
    os_bio_endio(bio, driver->end_with);
    return 0;
}

// Passes the bio itself on to the disk below.
int stacked_request(os_queue *queue, os_bio *bio) {
    auto *driver = static_cast<Driver *>(os_queue_data(queue));
    driver->requests++;
    os_bio_set_bdev(bio, driver->below);
    os_generic_make_request(bio);
    return 0;
}

// Keeps the bio, at the place that its sector names.
int keep_request(os_queue *queue, os_bio *bio) {
    auto *driver = static_cast<Driver *>(os_queue_data(queue));
    driver->kept.at(os_bio_sector(bio)) = bio;
    return 0;
}

// A program that writes the sector, and ends when the request has; it has come to the driver.
Process *keep_one(Driver &driver, os_bdev *bdev, unsigned place) {
    driver.kept.at(place) = nullptr;
    Process *program = start([bdev, place] {
        Bytes data(512);
        EXPECT_EQ(request(bdev, OS_BIO_WRITE, place, data), 0);
    });
    EXPECT_TRUE(eventually([&driver, place] { return driver.kept.at(place).load() != nullptr; }));
    return program;
}

void end_kept(Driver &driver, unsigned place, Process *program) {
    os_bio_endio(driver.kept.at(place), 0);
    join(program);
}

void set_up(Driver &driver, os_make_request_fn fn) {
    int major = os_register_blkdev(0, "contract");
    ASSERT_GT(major, 0);
    driver.major = static_cast<std::uint32_t>(major);
    driver.submitter = os_current();
    driver.disk = os_alloc_disk(1);
    driver.queue = os_alloc_queue(OS_GFP_KERNEL);
    ASSERT_TRUE(driver.disk && driver.queue);
    EXPECT_EQ(os_disk_queue(driver.disk), nullptr);
    os_queue_make_request(driver.queue, fn);
    os_queue_set_data(driver.queue, &driver);
    os_disk_setup(driver.disk, driver.major, 3, "contract3", &kOps);
    os_disk_set_capacity(driver.disk, kSectors);
    os_disk_set_queue(driver.disk, driver.queue);
    ASSERT_EQ(os_add_disk(driver.disk), 0);
}

void tear_down(Driver &driver) {
    os_del_gendisk(driver.disk);
    os_cleanup_queue(driver.queue);
    os_put_disk(driver.disk);
    os_unregister_blkdev(driver.major, "contract");
    EXPECT_EQ(driver.opens, driver.releases);
}

os_dev_t dev_of(const Driver &driver) {
    return os_mkdev(driver.major, 3);
}

}  // namespace

TEST(disk, registered_majors_are_unique) {
    run([] {
        int a = os_register_blkdev(0, "contract_a"), b = os_register_blkdev(0, "contract_b");
        ASSERT_GT(a, 0);
        ASSERT_GT(b, 0);
        EXPECT_NE(a, b);
        os_unregister_blkdev(static_cast<std::uint32_t>(a), "contract_a");
        EXPECT_EQ(os_register_blkdev(static_cast<std::uint32_t>(a), "contract_c"), 0);
        EXPECT_LT(os_register_blkdev(static_cast<std::uint32_t>(a), "contract_d"), 0);
        os_unregister_blkdev(static_cast<std::uint32_t>(a), "contract_c");
        os_unregister_blkdev(static_cast<std::uint32_t>(b), "contract_b");
    });
}

TEST(disk, added_disk_is_visible_until_it_is_deleted) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        std::vector<os_dev_t> all = nodes();
        EXPECT_NE(std::find(all.begin(), all.end(), dev_of(driver)), all.end());
        EXPECT_EQ(os_disk_first_minor(driver.disk), 3u);
        EXPECT_EQ(os_disk_queue(driver.disk), driver.queue);
        tear_down(driver);
        EXPECT_TRUE(nodes().empty());
        int err = 0;
        EXPECT_EQ(open_device(dev_of(driver), OS_FMODE_READ, &err), nullptr);
        EXPECT_LT(err, 0);
    });
}

TEST(disk, a_disk_that_was_never_added_can_be_given_back) {
    run([] {
        os_disk *disk = os_alloc_disk(1);
        os_queue *queue = os_alloc_queue(OS_GFP_KERNEL);
        ASSERT_TRUE(disk && queue);
        os_disk_set_queue(disk, queue);
        os_cleanup_queue(queue);
        os_put_disk(disk);
        disk = os_alloc_disk(1);
        ASSERT_NE(disk, nullptr);
        os_put_disk(disk);
        queue = os_alloc_queue(OS_GFP_KERNEL);
        ASSERT_NE(queue, nullptr);
        os_cleanup_queue(queue);
    });
}

TEST(disk, open_and_release_run_the_drivers_operations) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        int err = 0;
        os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        EXPECT_EQ(driver.opens, 1);
        EXPECT_EQ(os_bdev_dev(bdev), dev_of(driver));
        EXPECT_EQ(os_bdev_size(bdev), kSectors * 512);
        EXPECT_EQ(os_bdev_disk(bdev), driver.disk);
        EXPECT_EQ(os_bdev_queue(bdev), driver.queue);
        EXPECT_EQ(driver.releases, 0);
        close_device(bdev, kBoth);
        EXPECT_EQ(driver.releases, 1);
        tear_down(driver);
    });
}

TEST(disk, error_of_the_open_operation_reaches_who_opens) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        driver.open_result = -EIO;
        int err = 0;
        EXPECT_EQ(open_device(dev_of(driver), kBoth, &err), nullptr);
        EXPECT_EQ(err, -EIO);
        os_bdev *bdev = os_open_by_devnum(dev_of(driver), OS_FMODE_READ);
        ASSERT_TRUE(os_is_err(bdev));
        EXPECT_EQ(os_ptr_err(bdev), -EIO);
        EXPECT_EQ(driver.releases, 0);
        tear_down(driver);
    });
}

TEST(disk, a_node_opened_by_number_runs_the_drivers_open) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        os_bdev *bdev = os_open_by_devnum(dev_of(driver), OS_FMODE_READ);
        ASSERT_FALSE(os_is_err(bdev));
        EXPECT_EQ(driver.opens, 1);
        os_blkdev_put(bdev, kBoth);
        EXPECT_EQ(driver.releases, 1);
        tear_down(driver);
    });
}

TEST(disk, requests_reach_the_make_request_function_in_the_submitters_task) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        int err = 0;
        os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        Bytes out(5 * 512), in(5 * 512);
        for (std::size_t i = 0; i < out.size(); i++)
            out[i] = static_cast<std::uint8_t>(i * 7);
        EXPECT_EQ(request(bdev, OS_BIO_WRITE, 11, out), 0);
        EXPECT_EQ(std::memcmp(driver.bytes.data() + 11 * 512, out.data(), out.size()), 0);
        EXPECT_EQ(request(bdev, 0, 11, in), 0);
        EXPECT_EQ(in, out);
        EXPECT_GE(driver.requests, 2);
        EXPECT_TRUE(driver.in_submitter);
        close_device(bdev, kBoth);
        tear_down(driver);
    });
}

TEST(disk, error_that_the_driver_ends_with_reaches_the_submitter) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        int err = 0;
        os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        Bytes data(512);
        driver.end_with = -EROFS;
        EXPECT_EQ(request(bdev, OS_BIO_WRITE, 0, data), -EROFS);
        driver.end_with = -EIO;
        EXPECT_EQ(request(bdev, 0, 0, data), -EIO);
        close_device(bdev, kBoth);
        tear_down(driver);
    });
}

TEST(disk, request_beyond_the_capacity_never_reaches_the_driver) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        int err = 0;
        os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        Bytes data(1024);
        EXPECT_EQ(request(bdev, 0, kSectors - 1, data), -EIO);
        EXPECT_EQ(request(bdev, OS_BIO_WRITE, kSectors, data), -EIO);
        EXPECT_EQ(driver.requests, 0);
        close_device(bdev, kBoth);
        tear_down(driver);
    });
}

TEST(disk, a_read_only_disk_can_not_be_opened_for_writing) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        os_disk_set_ro(driver.disk, 1);
        int err = 0;
        EXPECT_EQ(open_device(dev_of(driver), kBoth, &err), nullptr);
        EXPECT_LT(err, 0);
        os_bdev *bdev = open_device(dev_of(driver), OS_FMODE_READ, &err);
        ASSERT_NE(bdev, nullptr) << err;
        close_device(bdev, OS_FMODE_READ);
        tear_down(driver);
    });
}

TEST(disk, ioctl_reaches_the_drivers_operation_and_its_result_the_caller) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        int err = 0;
        os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        EXPECT_EQ(device_ioctl(bdev, kBoth, 0x1234, 77), 77);
        EXPECT_EQ(os_bdev_ioctl(bdev, kBoth, 0x1234, 78), 78);
        close_device(bdev, kBoth);
        tear_down(driver);
    });
}

TEST(disk, unplug_of_a_node_runs_the_drivers_function) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        os_queue_set_unplug(driver.queue, [](os_queue *queue) {
            static_cast<Driver *>(os_queue_data(queue))->unplugs++;
        });
        os_queue_unplug(driver.queue);
        EXPECT_EQ(driver.unplugs, 1);
        tear_down(driver);
    });
}

TEST(disk, a_stacked_disk_passes_requests_through) {
    run([] {
        Driver driver;
        driver.below = os_open_by_devnum(make_disk(kSectors * 512, 512), kBoth);
        ASSERT_FALSE(os_is_err(driver.below));
        set_up(driver, stacked_request);
        os_queue_copy_limits(driver.queue, os_bdev_queue(driver.below));
        int err = 0;
        os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        Bytes out(8 * 512, 0x42), in(8 * 512);
        EXPECT_EQ(request(bdev, OS_BIO_WRITE, 100, out), 0);
        EXPECT_EQ(request(bdev, 0, 100, in), 0);
        EXPECT_EQ(in, out);
        Bytes nothing;
        EXPECT_EQ(request(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, nothing), 0);
        EXPECT_EQ(request(bdev, OS_BIO_WRITE | OS_BIO_FUA, 50, out), 0);
        EXPECT_EQ(request(driver.below, 0, 50, in), 0);
        EXPECT_EQ(in, out);
        close_device(bdev, kBoth);
        tear_down(driver);
        os_blkdev_put(driver.below, kBoth);
    });
}

TEST(disk, several_processes_use_a_stacked_disk_at_once) {
    run([] {
        Driver driver;
        driver.below = os_open_by_devnum(make_disk(kSectors * 512, 512), kBoth);
        ASSERT_FALSE(os_is_err(driver.below));
        set_up(driver, stacked_request);
        Process *processes[4];
        for (unsigned p = 0; p < 4; p++)
            processes[p] = start([&driver, p] {
                int err = 0;
                os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
                ASSERT_NE(bdev, nullptr) << err;
                for (unsigned i = 0; i < 10; i++) {
                    Bytes out(2 * 512, static_cast<std::uint8_t>(16 * p + i)), in(2 * 512);
                    EXPECT_EQ(request(bdev, OS_BIO_WRITE, 100 * p + 2 * i, out), 0);
                    EXPECT_EQ(request(bdev, 0, 100 * p + 2 * i, in), 0);
                    EXPECT_EQ(in, out);
                }
                close_device(bdev, kBoth);
            });
        for (Process *process : processes)
            join(process);
        EXPECT_EQ(driver.opens, 4);
        tear_down(driver);
        os_blkdev_put(driver.below, kBoth);
    });
}

TEST(disk, discards_are_refused_where_the_limits_do_not_allow_them) {
    run([] {
        Driver driver;
        set_up(driver, memory_request);
        int err = 0;
        os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        Bytes data(512);
        EXPECT_EQ(request(bdev, OS_BIO_WRITE | OS_BIO_DISCARD, 0, data), -EOPNOTSUPP);
        EXPECT_EQ(request(bdev, OS_BIO_WRITE | OS_BIO_ZEROES, 0, data), -EOPNOTSUPP);
        EXPECT_EQ(driver.requests, 0);
        close_device(bdev, kBoth);
        tear_down(driver);
    });
}

TEST(disk, a_drain_waits_for_the_requests_that_came_before) {
    run([] {
        Driver driver;
        set_up(driver, keep_request);
        EXPECT_EQ(os_disk_drain(driver.disk, 0), 0);
        int err = 0;
        os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        Process *first = keep_one(driver, bdev, 0);
        Process *second = keep_one(driver, bdev, 1);
        EXPECT_EQ(os_disk_drain(driver.disk, 20), -EAGAIN);
        end_kept(driver, 1, second);
        EXPECT_EQ(os_disk_drain(driver.disk, 20), -EAGAIN);
        std::atomic<bool> drained{false};
        Process *drainer = start([&] {
            EXPECT_EQ(os_disk_drain(driver.disk, 3600000), 0);
            drained = true;
        });
        linger();
        EXPECT_FALSE(drained);
        EXPECT_EQ(os_disk_drain(driver.disk, 20), -EAGAIN);  // it doesn't wait for the other one
        end_kept(driver, 0, first);
        join(drainer);
        EXPECT_TRUE(drained);
        close_device(bdev, kBoth);
        tear_down(driver);
    });
}

TEST(disk, a_drain_does_not_wait_for_requests_that_come_meanwhile) {
    run([] {
        Driver driver;
        set_up(driver, keep_request);
        int err = 0;
        os_bdev *bdev = open_device(dev_of(driver), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        Process *programs[2] = {keep_one(driver, bdev, 0), nullptr};
        std::atomic<bool> drained{false};
        Process *drainer = start([&] {
            EXPECT_EQ(os_disk_drain(driver.disk, 3600000), 0);
            drained = true;
        });
        // At no moment is nothing under way.
        unsigned i = 0;
        for (; !drained && i < 100000; i++) {
            programs[(i + 1) % 2] = keep_one(driver, bdev, (i + 1) % 2);
            end_kept(driver, i % 2, programs[i % 2]);
        }
        EXPECT_TRUE(drained);
        end_kept(driver, i % 2, programs[i % 2]);
        join(drainer);
        close_device(bdev, kBoth);
        tear_down(driver);
    });
}

TEST(disk, a_request_passed_on_counts_in_each_disk_until_it_ends) {
    run([] {
        Driver below, above;
        set_up(below, keep_request);
        below.submitter = above.submitter = os_current();
        above.below = os_open_by_devnum(dev_of(below), kBoth);
        ASSERT_FALSE(os_is_err(above.below));
        set_up(above, stacked_request);
        int err = 0;
        os_bdev *bdev = open_device(dev_of(above), kBoth, &err);
        ASSERT_NE(bdev, nullptr) << err;
        Process *program = start([bdev] {
            Bytes data(512);
            EXPECT_EQ(request(bdev, OS_BIO_WRITE, 2, data), 0);
        });
        EXPECT_TRUE(eventually([&] { return below.kept[2].load() != nullptr; }));
        EXPECT_EQ(os_disk_drain(above.disk, 20), -EAGAIN);
        EXPECT_EQ(os_disk_drain(below.disk, 20), -EAGAIN);
        end_kept(below, 2, program);
        EXPECT_EQ(os_disk_drain(above.disk, 0), 0);
        EXPECT_EQ(os_disk_drain(below.disk, 0), 0);
        close_device(bdev, kBoth);
        tear_down(above);
        os_blkdev_put(above.below, kBoth);
        tear_down(below);
    });
}

}  // namespace contract::disk_tests
