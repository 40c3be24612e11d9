// tests/unit/block/lifecycle_test.cpp: start, stop, delete, load and unload of the block side
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/lifecycle.h"

#include "driver/block/kdirtyd.h"
#include "os/sim/seeds.h"
#include "tests/unit/block/bitmap_image.h"

using namespace driver_world;

TEST(lifecycle, start_and_stop_of_a_filter) {
    Machine machine;
    boot(
        machine,
        [&] {
            ASSERT_EQ(add_filter(0), 0);
            EXPECT_EQ(start(0), 0);
            EXPECT_EQ(node(0)->started, 1u);
            EXPECT_TRUE(logged(1, "trak_ioctl_start_node(): Starting trak(100, 0)"));
            EXPECT_TRUE(logged(2, "trak_block_start_device(): Starting trak(100, 0)"));
            EXPECT_TRUE(logged(3, "trak_block_start_device(): trak(100, 0) has been started "
                                  "successfully"));
            EXPECT_EQ(start(0), -EALREADY);
            EXPECT_TRUE(
                logged_error("trak_block_start_device(): trak(100, 0) has already been started"));
            EXPECT_EQ(node(0)->started, 1u);
            EXPECT_EQ(stop(0), 0);
            EXPECT_EQ(node(0)->started, 0u);
            EXPECT_TRUE(logged(1, "trak_ioctl_stop_node(): Stopping trak(100, 0)"));
            EXPECT_TRUE(logged(2, "trak_block_stop_device(): Stopping trak(100, 0)"));
            EXPECT_EQ(count_messages(3, "trak_block_stop_device(): trak(100, 0) has been stopped "
                                        "successfully"),
                      1u);
            EXPECT_EQ(stop(0), 0);  // nothing to do, and no message of success
            EXPECT_EQ(count_messages(3, "trak_block_stop_device(): trak(100, 0) has been stopped "
                                        "successfully"),
                      1u);
        },
        3);
}

TEST(lifecycle, unknown_minors_are_refused_and_delete_answers_with_a_positive_code) {
    Machine machine;
    boot(machine, [&] {
        for (const std::uint32_t minor : {0u, 255u, 256u, 0x7fffffffu, 0xffffffffu}) {
            const std::string name = "Nothing is known about trak(100, " +
                                     std::to_string(static_cast<std::int32_t>(minor)) + ")";
            EXPECT_EQ(start(minor), -EINVAL);
            EXPECT_TRUE(logged_error("trak_ioctl_start_node(): " + name));
            EXPECT_EQ(stop(minor), -EINVAL);
            EXPECT_TRUE(logged_error("trak_ioctl_stop_node(): " + name));
            EXPECT_EQ(del(minor), 22);
            EXPECT_TRUE(logged_error("trak_ioctl_del_node(): " + name));
        }
    });
}

TEST(lifecycle, stop_saves_the_dirty_bitmaps_and_ignores_the_result) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        filter(0).incr_bmp[0] = 7;
        filter(0).incr_bmp_dirty = 1;
        EXPECT_EQ(stop(0), 0);
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(incr_bmp(0)));
        EXPECT_EQ(start(0), 0);
        filter(0).incr_bmp_dirty = 1;
        machine.storage.fail_path(kIncrFile, sim::Fault::kWrite, -ENOSPC);
        EXPECT_EQ(stop(0), 0);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
        machine.storage.fail_path(kIncrFile, sim::Fault::kWrite, 0);
    });
}

TEST(lifecycle, nodes_in_use_are_neither_stopped_nor_deleted) {
    Machine machine;
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(start(0), 0);
        os_bdev *bdev = open_node(0);
        EXPECT_EQ(stop(0), -EBUSY);
        EXPECT_TRUE(logged_error("trak_block_stop_device(): trak(100, 0) is still being used."));
        EXPECT_EQ(del(0), -EBUSY);
        EXPECT_EQ(node(0)->started, 1u);
        // The destroy itself refuses too, with a text of its own.
        trak_list leaving;
        trak_list_init(&leaving);
        {
            const zumutex_guard nodes(&trak_nodes_mutex);
            const zuwrite_guard table(&trak_blkdev_rwlock);
            EXPECT_EQ(trak_block_destroy_device(node(0), &leaving), -EBUSY);
        }
        EXPECT_TRUE(logged_error("trak_block_destroy_device(): trak(100, 0)is still being used."));
        sim::close_device(bdev);
        {
            const zumutex_guard nodes(&trak_nodes_mutex);
            const zuwrite_guard table(&trak_blkdev_rwlock);
            EXPECT_EQ(trak_block_destroy_device(node(0), &leaving), -EBUSY);
            EXPECT_EQ(trak_block_destroy_device(nullptr, &leaving), -EINVAL);
        }
        EXPECT_TRUE(trak_list_empty(&leaving));
        EXPECT_TRUE(logged_error(
            "trak_block_destroy_device(): Can't destroy started trak(100, 0). Stop it first!"));
        EXPECT_TRUE(logged_error("trak_block_destroy_device(): Internal error: dev==NULL"));
        EXPECT_EQ(del(0), 0);
    });
}

TEST(lifecycle, delete_takes_everything_of_a_node_away) {
    Machine machine;
    boot(
        machine,
        [&] {
            make_clean_filter();
            sim::clear_log();
            EXPECT_EQ(del(0), 0);
            EXPECT_TRUE(logged(1, "trak_ioctl_del_node(): Removing trak(100, 0)"));
            EXPECT_TRUE(logged(1, "trak_block_destroy_device(): Destroying trak(100, 0)"));
            EXPECT_TRUE(logged(3, "trak_block_destroy_device(): trak(100, 0) has been destroyed "
                                  "successfully"));
            EXPECT_EQ(node(0), nullptr);
            EXPECT_TRUE(sim::nodes().empty());
            EXPECT_FALSE(machine.storage.exists("/dev/trak/trak0"));
            EXPECT_FALSE(sim::proc_exists("/proc/trak/trak0"));
            EXPECT_TRUE(machine.storage.exists(kIncrFile));
            EXPECT_EQ(del(0), 22);
            EXPECT_EQ(add_filter(0), 0);  // the disk was closed
        },
        3);
}

TEST(lifecycle, delete_finds_out_that_another_one_was_faster) {
    bool both_ways = false;
    sim::for_each_seed(60, [&](std::uint64_t seed) {
        Machine machine;
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                ASSERT_EQ(add_filter(0), 0);
                int rc[2];
                sim::Process *a = sim::spawn("a", [&] { rc[0] = del(0); });
                sim::Process *b = sim::spawn("b", [&] { rc[1] = del(0); });
                sim::join(a);
                sim::join(b);
                EXPECT_EQ(rc[0] + rc[1], 22);
                both_ways |= sim::count_log("Removing trak(100, 0)") == 2 &&
                             sim::count_log("trak_block_stop_device(): Stopping") == 2;
            },
            2, options);
    });
    EXPECT_TRUE(both_ways);  // some seed had the second one stop the node before it was gone
}

TEST(lifecycle, unload_stops_and_destroys_every_node) {
    Machine machine;
    machine.storage.add_disk("sdc", 8u << 20 | 32u, kDiskSize, 512);
    boot_bare(machine, [&] {
        trak_debug = 2;
        ASSERT_EQ(trak_init(), 0);
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(add_filter(7, 4096, "/dev/sdc"), 0);
        ASSERT_EQ(start(7), 0);
        filter(7).incr_bmp_dirty = 1;
        sim::clear_log();
        EXPECT_EQ(trak_cleanup(), 0);
        for (const char *text : {"Stopping all minor nodes", "Destroying all minor nodes",
                                 "Unregistering block device driver"})
            EXPECT_TRUE(logged(2, std::string("trak_block_destroy(): ") + text)) << text;
        EXPECT_EQ(order_of("Destroying trak("),
                  "Destroying trak(100, 0); Destroying trak(100, 7); ");
        EXPECT_EQ(sim::count_log("trak_block_stop_device(): Stopping"), 1u);  // 0 was not started
        EXPECT_TRUE(machine.storage.exists("/bmp/trak7.incr"));
    });
}

TEST(lifecycle, unload_with_an_open_node_fails_and_works_later) {
    Machine machine;
    machine.storage.add_disk("sdc", 8u << 20 | 32u, kDiskSize, 512);
    boot_bare(machine, [&] {
        ASSERT_EQ(trak_init(), 0);
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(add_filter(1, 4096, "/dev/sdc"), 0);
        ASSERT_EQ(start(0), 0);
        ASSERT_EQ(start(1), 0);
        os_bdev *bdev = open_node(1);
        EXPECT_EQ(trak_cleanup(), -EBUSY);
        EXPECT_TRUE(logged_error("trak_block_stop_device(): trak(100, 1) is still being used."));
        EXPECT_EQ(sim::nodes().size(), 2u);
        EXPECT_EQ(node(0)->started, 0u);
        EXPECT_EQ(sim::write_device(bdev, 0, Bytes(512, 1)), 0);  // it goes on serving
        EXPECT_EQ(start(0), 0);
        EXPECT_EQ(trak_cleanup(), -EBUSY);
        sim::close_device(bdev);
        EXPECT_EQ(trak_cleanup(), 0);
        EXPECT_TRUE(sim::nodes().empty());
    });
}

TEST(lifecycle, every_failed_step_of_a_load_leaves_nothing) {
    for (const sim::Fault kind : {sim::Fault::kAlloc, sim::Fault::kOpen}) {
        bool done = false;
        for (std::uint64_t nth = 1; !done; ++nth) {
            Machine machine;
            sim::Options options;
            options.check_leaks =
                false;  // a failed load leaves its logging buffer, as it is defined
            boot_bare(
                machine,
                [&] {
                    const std::uint64_t before = sim::fault_points(kind);
                    sim::fail_nth(kind, nth);
                    const int rc = trak_init();
                    done = sim::fault_points(kind) - before < nth;
                    sim::fail_none();
                    EXPECT_TRUE(rc != 0 || done || logged(1, "trak_init(): rc=0"));
                    if (rc != 0) {
                        EXPECT_FALSE(sim::proc_exists("/proc/trak"));
                        ASSERT_EQ(trak_init(), 0);  // majors and names are free again
                    }
                    EXPECT_EQ(trak_cleanup(), 0);
                },
                options);
            ASSERT_LT(nth, 50u);
        }
    }
}

TEST(lifecycle, messages_of_a_failed_block_side) {
    Machine machine;
    boot_bare(machine, [&] {
        trak_debug = 2;
        trak_blk_major = 8;  // the disks'
        EXPECT_EQ(trak_init(), -EBUSY);
        EXPECT_TRUE(logged_error("trak_block_init(): Failed to register block device: rc=-16."));
        trak_blk_major = 100;
        trak_max_blk_minor = -1;
        EXPECT_EQ(trak_init(), -ENOMEM);
        EXPECT_TRUE(logged_error("trak_block_init(): Memory allocation failed."));
        trak_max_blk_minor = 255;
        trak_blk_major = 0;
        ASSERT_EQ(trak_init(), 0);
        EXPECT_GT(trak_blk_major, 0);
        EXPECT_TRUE(logged(2, "trak_block_init(): Initializing block device"));
        EXPECT_TRUE(
            logged(2, "trak_block_init(): trak_blk_major=" + std::to_string(trak_blk_major)));
        EXPECT_EQ(trak_cleanup(), 0);
    });
}

// One failed step anywhere between a write and the delete of its node: an orderly end all the same, and the
// next load of the map knows of every extent that was written.
TEST(lifecycle, no_failed_step_loses_a_mark_over_an_orderly_stop) {
    for (unsigned k = 0; k < static_cast<unsigned>(sim::Fault::kCount); ++k) {
        const auto kind = static_cast<sim::Fault>(k);
        bool done = false;
        for (std::uint64_t nth = 1; !done; ++nth) {
            SCOPED_TRACE(testing::Message() << "fault " << k << " nth " << nth);
            Machine machine;
            boot(machine, [&] {
                make_clean_filter();
                const std::uint64_t before = sim::fault_points(kind);
                sim::fail_nth(kind, nth);
                write_node(0, 8 * 9, 8);
                write_node(0, 8 * 100, 8);
                const int stopped = stop(0);
                const int deleted = del(0);
                done = sim::fault_points(kind) - before < nth;
                sim::fail_none();
                EXPECT_TRUE(stopped == 0 || stopped == -EFAULT || stopped == -ENODEV) << stopped;
                EXPECT_TRUE(deleted == 0 || deleted == -EFAULT || deleted == -ENODEV) << deleted;
                if (deleted != 0) {
                    EXPECT_EQ(stop(0), 0);
                    EXPECT_EQ(del(0), 0);
                }
                ASSERT_EQ(add_filter(0), 0);
                // What counts is what the disk holds now, whatever the writes' results were.
                const Bytes disk = machine.disk.read(0, kDiskSize);
                for (std::size_t e = 0; e < 256; ++e) {
                    const auto *at = disk.data() + e * 4096;
                    if (std::any_of(at, at + 4096, [](std::uint8_t byte) { return byte != 0; })) {
                        EXPECT_TRUE(bit(incr_bmp(0), e)) << e;
                        EXPECT_TRUE(bit(diff_bmp(0), e)) << e;
                    }
                }
            });
            ASSERT_LT(nth, 200u);
        }
    }
}
