// tests/unit/sim/request_test.cpp: bios and devices: wrong use is found, what is adverse happens
// SPDX-License-Identifier: GPL-2.0-only
#include <set>

#include "os/disk.h"
#include "os/task.h"
#include "tests/unit/sim/provoke.h"

namespace sim_tests::request {

os_bio *bio_for(os_bdev *bdev) {
    os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
    os_bio_set_bdev(bio, bdev);
    return bio;
}

// A node whose make-request function is the test's.
struct Node {
    os_block_device_operations ops{};
    std::uint32_t major;
    os_disk *disk;
    os_queue *queue;

    explicit Node(os_make_request_fn fn) {
        major = static_cast<std::uint32_t>(os_register_blkdev(0, "x"));
        disk = os_alloc_disk(1);
        queue = os_alloc_queue(OS_GFP_KERNEL);
        os_queue_make_request(queue, fn);
        os_disk_setup(disk, major, 0, "x", &ops);
        os_disk_set_capacity(disk, 2048);
        os_disk_set_queue(disk, queue);
        EXPECT_EQ(os_add_disk(disk), 0);
    }
    os_dev_t dev() const { return os_mkdev(major, 0); }
    void remove() {
        os_del_gendisk(disk);
        os_cleanup_queue(queue);
        os_put_disk(disk);
        os_unregister_blkdev(major, "x");
    }
};

TEST(sim_request, double_completion_is_found) {
    EXPECT_SAYS(failure_of([] {
                    os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 0);
                    os_bio_endio(bio, 0);
                    os_bio_endio(bio, 0);
                }),
                "double completion");
}

TEST(sim_request, ending_a_bio_that_a_disk_has_is_found) {
    EXPECT_SAYS(failure_of([] {
                    os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
                    os_bio *bio = bio_for(bdev);
                    os_submit_bio(OS_BIO_WRITE | OS_BIO_FLUSH, bio);
                    os_bio_endio(bio, 0);
                    os_bio_endio(bio, 0);
                }),
                "os_bio_endio of a bio that");
}

TEST(sim_request, changing_a_bio_that_a_disk_has_is_found) {
    Machine machine;
    machine.disk.hold(true);
    std::string text;
    try {
        machine.run(options_of(1), [] {
            os_bio *bio = bio_for(os_open_by_devnum(kDisk, kBoth));
            os_submit_bio(OS_BIO_WRITE | OS_BIO_FLUSH, bio);
            os_bio_set_sector(bio, 1);
        });
    } catch (const sim::Failure &failure) {
        text = failure.what();
    }
    EXPECT_SAYS(text, "os_bio_set_sector: the bio is under way");
}

TEST(sim_request, submitting_a_bio_twice_is_found) {
    EXPECT_SAYS(failure_on_some_seed(20,
                                     [] {
                                         os_bio *bio = bio_for(os_open_by_devnum(kDisk, kBoth));
                                         os_submit_bio(OS_BIO_WRITE | OS_BIO_FLUSH, bio);
                                         os_generic_make_request(bio);
                                     }),
                "os_generic_make_request: the bio ");
}

TEST(sim_request, use_of_a_freed_bio_is_found) {
    EXPECT_SAYS(failure_of([] {
                    os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 0);
                    os_bio_put(bio);
                    os_bio_put(bio);
                }),
                "freed already");
}

TEST(sim_request, dropping_the_last_reference_of_a_bio_under_way_is_found) {
    Machine machine;
    machine.disk.hold(true);
    std::string text;
    try {
        machine.run(options_of(1), [] {
            os_bio *bio = bio_for(os_open_by_devnum(kDisk, kBoth));
            os_submit_bio(OS_BIO_WRITE | OS_BIO_FLUSH, bio);
            os_bio_put(bio);
        });
    } catch (const sim::Failure &failure) {
        text = failure.what();
    }
    EXPECT_SAYS(text, "the last reference of a bio that is under way");
}

TEST(sim_request, freeing_the_pages_of_a_program_is_found) {
    EXPECT_SAYS(failure_of([] {
                    Node node([](os_queue *, os_bio *bio) {
                        os_free_page(os_bio_vec_at(bio, 0).page);
                        return 0;
                    });
                    int err = 0;
                    os_bdev *bdev = sim::open_device(node.dev(), kBoth, &err);
                    sim::Bytes data(512);
                    (void)sim::read_device(bdev, 0, data);
                }),
                "the page belongs to the submitter of a request");
}

TEST(sim_request, use_of_a_closed_device_is_found) {
    EXPECT_SAYS(failure_of([] {
                    os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
                    os_blkdev_put(bdev, kBoth);
                    ignore(os_bdev_size(bdev));
                }),
                "os_bdev_size: a block device that was freed already");
}

TEST(sim_request, a_bio_is_spent_after_its_disk_ended_it) {
    Machine machine;
    machine.run(options_of(1), [] {
        os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
        os_page *page = os_alloc_page(OS_GFP_KERNEL);
        os_bio *bio = bio_for(bdev);
        ASSERT_TRUE(os_bio_add_page(bio, page, 1024, 0));
        os_bio_set_sector(bio, 4);
        static bool ended;
        ended = false;
        os_bio_set_end_io(bio, [](os_bio *, int) { ended = true; });
        os_submit_bio(0, bio);
        sim::wait_until([] { return ended; });
        EXPECT_EQ(os_bio_size(bio), 0u);
        EXPECT_EQ(os_bio_sector(bio), 6u);
        EXPECT_EQ(os_bio_idx(bio), 1u);
        os_bio_put(bio);
        os_free_page(page);
        os_blkdev_put(bdev, kBoth);
    });
}

TEST(sim_request, requests_end_in_every_order) {
    std::set<std::vector<int>> orders;
    for (std::uint64_t seed = 1; seed <= 300; seed++) {
        Machine machine;
        machine.run(options_of(seed), [&] {
            static std::vector<int> order;
            static int ids[3] = {0, 1, 2};
            order.clear();
            os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
            os_bio *bios[3];
            for (int i = 0; i < 3; i++) {
                bios[i] = bio_for(bdev);
                os_bio_set_private(bios[i], &ids[i]);
                os_bio_set_end_io(bios[i], [](os_bio *bio, int) {
                    order.push_back(*static_cast<int *>(os_bio_private(bio)));
                });
                os_submit_bio(OS_BIO_WRITE | OS_BIO_FLUSH, bios[i]);
            }
            sim::wait_until([] { return order.size() == 3; });
            for (os_bio *bio : bios)
                os_bio_put(bio);
            os_blkdev_put(bdev, kBoth);
            orders.insert(order);
        });
    }
    EXPECT_EQ(orders.size(), 6u);
}

TEST(sim_request, a_request_made_inside_a_make_request_function_starts_after_it) {
    Machine machine;
    machine.run(options_of(1), [] {
        static bool inside, seen_inside;
        inside = seen_inside = false;
        Node lower([](os_queue *, os_bio *bio) {
            seen_inside |= inside;
            os_bio_endio(bio, 0);
            return 0;
        });
        static os_bdev *lower_bdev;
        lower_bdev = os_open_by_devnum(lower.dev(), kBoth);
        Node upper([](os_queue *, os_bio *bio) {
            inside = true;
            os_bio_set_bdev(bio, lower_bdev);
            os_generic_make_request(bio);
            inside = false;
            return 0;
        });
        int err = 0;
        os_bdev *bdev = sim::open_device(upper.dev(), kBoth, &err);
        sim::Bytes data(512);
        EXPECT_EQ(sim::read_device(bdev, 0, data), 0);
        EXPECT_FALSE(seen_inside);
        sim::close_device(bdev);
        upper.remove();
        os_blkdev_put(lower_bdev, kBoth);
        lower.remove();
    });
}

TEST(sim_request, bad_sectors_fail_in_their_direction_until_healed) {
    Machine machine;
    machine.disk.fail_sectors(10, 20, true);
    machine.run(options_of(1), [&] {
        int err = 0;
        os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
        sim::Bytes data(2 * 512);
        EXPECT_EQ(sim::write_device(bdev, 8, data), 0);
        EXPECT_EQ(sim::write_device(bdev, 9, data), -EIO);
        EXPECT_EQ(sim::write_device(bdev, 20, data), -EIO);
        EXPECT_EQ(sim::write_device(bdev, 21, data), 0);
        EXPECT_EQ(sim::read_device(bdev, 15, data), 0);
        machine.disk.heal();
        EXPECT_EQ(sim::write_device(bdev, 15, data), 0);
        sim::close_device(bdev);
    });
}

TEST(sim_request, a_held_disk_serves_nothing_until_it_is_let_go) {
    Machine machine;
    machine.run(options_of(2), [&] {
        int err = 0;
        os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
        machine.disk.hold(true);
        sim::Request *request = sim::start_request(bdev, OS_BIO_WRITE, 0, sim::Bytes(512, 7));
        sim::sleep_ms(100'000);
        EXPECT_FALSE(sim::request_done(request));
        machine.disk.hold(false);
        EXPECT_EQ(sim::wait_request(request, nullptr), 0);
        sim::close_device(bdev);
    });
    EXPECT_EQ(machine.disk.read(0, 512), sim::Bytes(512, 7));
}

TEST(sim_request, requests_that_are_no_whole_blocks_fail) {
    Machine machine;
    os_dev_t dev = os_mkdev(8, 16);
    machine.storage.add_disk("sdb", dev, 1 << 20, 4096);
    machine.run(options_of(1), [&] {
        int err = 0;
        os_bdev *bdev = sim::open_device(dev, kBoth, &err);
        EXPECT_EQ(os_bdev_block_size(bdev), 4096u);
        sim::Bytes sector(512), block(4096);
        EXPECT_EQ(sim::read_device(bdev, 0, sector), -EIO);
        EXPECT_EQ(sim::read_device(bdev, 4, block), -EIO);
        EXPECT_EQ(sim::read_device(bdev, 8, block), 0);
        sim::close_device(bdev);
    });
}

TEST(sim_request, a_disk_of_one_byte_has_no_sector) {
    Machine machine;
    os_dev_t dev = os_mkdev(8, 16);
    machine.storage.add_disk("tiny", dev, 1, 512);
    machine.run(options_of(1), [&] {
        int err = 0;
        os_bdev *bdev = sim::open_device(dev, kBoth, &err);
        EXPECT_EQ(os_bdev_size(bdev), 1u);
        sim::Bytes sector(512);
        EXPECT_EQ(sim::read_device(bdev, 0, sector), -EIO);
        sim::close_device(bdev);
    });
}

TEST(sim_request, sixteen_tebibytes_cost_nothing) {
    Machine machine;
    os_dev_t dev = os_mkdev(8, 16);
    std::uint64_t size = std::uint64_t{16} << 40;
    machine.storage.add_disk("huge", dev, size, 512);
    machine.run(options_of(1), [&] {
        int err = 0;
        os_bdev *bdev = sim::open_device(dev, kBoth, &err);
        sim::Bytes out(512, 9), in(512);
        EXPECT_EQ(sim::write_device(bdev, size / 512 - 1, out), 0);
        EXPECT_EQ(sim::read_device(bdev, size / 512 - 1, in), 0);
        EXPECT_EQ(in, out);
        sim::close_device(bdev);
    });
}

TEST(sim_request, discards_and_write_zeroes_clear_their_sectors) {
    Machine machine;
    machine.run(options_of(1), [] {
        int err = 0;
        os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
        for (std::uint32_t flag : {OS_BIO_DISCARD, OS_BIO_ZEROES}) {
            sim::Bytes data(4 * 512, 0xee), part(2 * 512);
            EXPECT_EQ(sim::write_device(bdev, 0, data), 0);
            EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | flag, 1, part), 0);
            EXPECT_EQ(sim::read_device(bdev, 0, data), 0);
            EXPECT_EQ(data[511], 0xee);
            EXPECT_EQ(data[512], 0);
            EXPECT_EQ(data[3 * 512 - 1], 0);
            EXPECT_EQ(data[3 * 512], 0xee);
        }
        sim::close_device(bdev);
    });
}

TEST(sim_request, flushes_are_counted) {
    Machine machine;
    machine.run(options_of(1), [] {
        int err = 0;
        os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
        EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, {}), 0);
        sim::close_device(bdev);
    });
    EXPECT_EQ(machine.disk.flush_count(), 1u);
}

TEST(sim_request, openers_mounts_and_ioctls_are_as_the_test_sets_them) {
    Machine machine;
    machine.disk.set_openers(2);
    machine.disk.set_mounted(true);
    machine.disk.set_ioctl(
        [](std::uint32_t, std::uint32_t cmd, os_uaddr arg) { return static_cast<int>(cmd + arg); });
    machine.run(options_of(1), [] {
        os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
        EXPECT_EQ(os_bdev_openers(bdev), 3u);
        os_super *super = os_get_super(bdev);
        EXPECT_NE(super, nullptr);
        os_drop_super(super);
        EXPECT_EQ(os_bdev_ioctl(bdev, kBoth, 40, 2), 42);
        os_blkdev_put(bdev, kBoth);
    });
}

TEST(sim_request, a_queue_cleaned_up_under_a_request_is_found) {
    EXPECT_SAYS(failure_on_some_seed(50,
                                     [] {
                                         static bool inside;
                                         inside = false;
                                         Node node([](os_queue *, os_bio *bio) {
                                             inside = true;
                                             for (int i = 0; i < 100; i++)
                                                 os_yield();
                                             os_bio_endio(bio, 0);
                                             return 0;
                                         });
                                         sim::spawn("reader", [&node] {
                                             int err = 0;
                                             os_bdev *bdev =
                                                 sim::open_device(node.dev(), kBoth, &err);
                                             sim::Bytes data(512);
                                             (void)sim::read_device(bdev, 0, data);
                                             sim::close_device(bdev);
                                         });
                                         sim::wait_until([] { return inside; });
                                         node.remove();
                                     }),
                "1 requests are in the make-request function");
}

}  // namespace sim_tests::request
