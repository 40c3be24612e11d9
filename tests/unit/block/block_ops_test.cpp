// tests/unit/block/block_ops_test.cpp: open, release, ioctl and unplug of nodes
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/lifecycle.h"

#include "os/sim/seeds.h"
#include "tests/unit/block/bitmap_image.h"

using namespace driver_world;

TEST(block_ops, open_of_a_stopped_node_fails) {
    Machine machine;
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        int err = 0;
        EXPECT_EQ(open_node(0, &err), nullptr);
        EXPECT_EQ(err, -EIO);
        EXPECT_TRUE(logged_error("trak_block_open(): trak(100, 0) hasn't been started yet."));
        EXPECT_EQ(node(0)->use_cnt.load(), 0);
        EXPECT_EQ(sim::module_references(), 0);
    });
}

TEST(block_ops, opens_are_counted_and_hold_the_module) {
    Machine machine;
    boot(
        machine,
        [&] {
            ASSERT_EQ(add_filter(0), 0);
            ASSERT_EQ(start(0), 0);
            EXPECT_EQ(node(0)->last_open_bdev, nullptr);
            os_bdev *a = open_node(0);
            ASSERT_NE(a, nullptr);
            EXPECT_EQ(node(0)->last_open_bdev, a);
            EXPECT_GE(node(0)->use_cnt.load(), 1);
            EXPECT_GE(sim::module_references(), 1);
            EXPECT_TRUE(logged(2, "trak_block_open(): Opening trak(100, 0)"));
            EXPECT_EQ(sim::count_log("trak_block_open(): bdev="), 1u);
            sim::close_device(a);
            EXPECT_TRUE(logged(2, "trak_block_release(): Releasing trak(100, 0)"));
            EXPECT_EQ(node(0)->last_open_bdev, nullptr);
            EXPECT_EQ(node(0)->use_cnt.load(), 0);
            EXPECT_EQ(sim::module_references(), 0);
        },
        3);
}

TEST(block_ops, every_release_saves_the_dirty_bitmaps) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        os_bdev *a = open_node(0);
        os_bdev *b = open_node(0);
        EXPECT_EQ(sim::write_device(a, 0, Bytes(512, 1)), 0);
        sim::clear_log();
        EXPECT_EQ(trak_bdops.release(os_bdev_disk(b), 0), 0);  // while another opener is left
        EXPECT_TRUE(logged(1, "trak_block_save_dirty_bmps(): Saving dirty incr/diff bitmaps to "
                              "disk"));
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(incr_bmp(0)));
        EXPECT_EQ(trak_bdops.open(b, 0), 0);
        sim::close_device(b);
        sim::close_device(a);
        EXPECT_EQ(node(0)->use_cnt.load(), 0);
    });
}

TEST(block_ops, ioctls_are_named_and_handed_to_the_disk) {
    Machine machine;
    std::vector<std::uint32_t> seen;
    machine.disk.set_ioctl([&](std::uint32_t, std::uint32_t cmd, os_uaddr) {
        seen.push_back(cmd);
        return 4711;
    });
    boot(
        machine,
        [&] {
            ASSERT_EQ(add_filter(0), 0);
            ASSERT_EQ(start(0), 0);
            os_bdev *bdev = open_node(0);
            const std::pair<std::uint32_t, const char *> names[] = {
                {0x1260, "BLKGETSIZE"}, {0x125d, "BLKROSET"},      {0x125e, "BLKROGET"},
                {0x1262, "BLKRASET"},   {0x1263, "BLKRAGET"},      {0x1261, "BLKFLSBUF"},
                {0x1268, "BLKSSZGET"},  {0x1269, "BLKPG"},         {0x80081270, "BLKBSZGET"},
                {0x1277, "UNKNOWN"},    {0x40081271, "BLKBSZSET"},
            };
            const os_uaddr arg = sim::user_alloc(16);
            for (const auto &[cmd, name] : names) {
                seen.clear();
                EXPECT_EQ(sim::device_ioctl(bdev, cmd, arg), 4711);
                EXPECT_EQ(seen, std::vector<std::uint32_t>{cmd});
                char text[80];
                std::snprintf(text, sizeof text, "trak_block_ioctl(): cmd=0x%x (%s)", cmd, name);
                EXPECT_TRUE(logged(2, text)) << text;
            }
            seen.clear();
            for (const std::uint32_t cmd : {0x80081270u, 0x40081271u, 0xc0081299u})
                EXPECT_EQ(sim::device_ioctl(bdev, cmd, sim::kUserLimit - 4), -EFAULT);
            EXPECT_EQ(sim::device_ioctl(bdev, 0x80081270, ~std::uint64_t{0} - 3), -EFAULT);
            EXPECT_TRUE(seen.empty());
            EXPECT_EQ(sim::device_ioctl(bdev, 0x1260, ~std::uint64_t{0} - 3),
                      4711);  // no direction
            sim::user_free(arg);
            machine.disk.set_ioctl(nullptr);
            EXPECT_EQ(sim::device_ioctl(bdev, 0x1260, 0), 0);
            sim::close_device(bdev);
        },
        2);
}

TEST(block_ops, ioctl_of_a_node_without_a_record_or_a_disk_is_refused) {
    Machine machine;
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(start(0), 0);
        os_bdev *bdev = open_node(0);
        trak_device *dev = node(0);
        trak_blkdev_arr[0] = nullptr;
        EXPECT_EQ(sim::device_ioctl(bdev, 0x1260, 0), -EINVAL);
        EXPECT_TRUE(logged_error("trak_block_ioctl(): Unknown device trak(100, 0)"));
        trak_blkdev_arr[0] = dev;
        os_bdev *disk = dev->filter.hdd_bdev;
        dev->filter.hdd_bdev = nullptr;
        EXPECT_EQ(sim::device_ioctl(bdev, 0x1260, 0), -EIO);
        EXPECT_TRUE(logged_error("trak_block_ioctl(): Internal error: fdev==NULL."));
        dev->filter.hdd_bdev = disk;
        sim::close_device(bdev);
    });
}

TEST(block_ops, opens_race_with_start_stop_and_delete) {
    sim::for_each_seed(40, [](std::uint64_t seed) {
        Machine machine;
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                ASSERT_EQ(add_filter(0), 0);
                std::vector<sim::Process *> tasks;
                for (int t = 0; t < 2; ++t) {
                    tasks.push_back(sim::spawn("user", [] {
                        for (int i = 0; i < 3; ++i) {
                            const int rc = write_node(0, 0, 1);
                            EXPECT_TRUE(rc == 0 || rc == -EIO || rc == -EINVAL || rc == -ENXIO)
                                << rc;
                        }
                    }));
                }
                tasks.push_back(sim::spawn("admin", [] {
                    for (int i = 0; i < 3; ++i) {
                        start(0);
                        stop(0);
                    }
                    const int rc = del(0);
                    EXPECT_TRUE(rc == 0 || rc == -EBUSY) << rc;
                    if (rc == 0)
                        add_filter(0);
                }));
                for (sim::Process *task : tasks)
                    sim::join(task);
                EXPECT_EQ(node(0)->use_cnt.load(), 0);
                EXPECT_EQ(sim::module_references(), 0);
            },
            1, options);
    });
}

// The kernel opens a disk, closes it and takes it away under a mutex of its own.
TEST(block_ops, opens_and_deletions_at_once_never_wait_for_each_other) {
    sim::for_each_seed(40, [](std::uint64_t seed) {
        Machine machine;
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                std::vector<sim::Process *> tasks;
                for (int i = 0; i < 2; ++i)
                    tasks.push_back(sim::spawn("opener", [] {
                        for (int n = 0; n < 8; ++n) {
                            int err = 0;
                            if (os_bdev *bdev = open_node(0, &err))
                                sim::close_device(bdev);
                            else
                                EXPECT_TRUE(err == -ENXIO || err == -EINVAL || err == -EIO) << err;
                        }
                    }));
                for (int n = 0; n < 4; ++n) {
                    EXPECT_EQ(add_filter(0), 0);
                    EXPECT_EQ(start(0), 0);
                    sim::yield();
                    while (del(0) == -EBUSY)
                        sim::yield();
                }
                for (sim::Process *task : tasks)
                    sim::join(task);
                EXPECT_TRUE(sim::nodes().empty());
            },
            1, options);
    });
}

TEST(block_ops, minor_of_an_orphan_is_freed_while_others_try_to_open_it) {
    sim::for_each_seed(40, [](std::uint64_t seed) {
        Machine machine;
        machine.storage.add_disk("sdc", os_mkdev(8, 48), kDiskSize, 512);
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                ASSERT_EQ(add_filter(0), 0);
                ASSERT_EQ(start(0), 0);
                ASSERT_EQ(add_filter(0, 4096, "/dev/sdc"), -EINVAL);
                sim::Process *opener = sim::spawn("opener", [] {
                    for (int n = 0; n < 8; ++n) {
                        EXPECT_EQ(open_node(0),
                                  nullptr);  // the orphan, or the new node, not started
                    }
                });
                EXPECT_EQ(add_filter(0, 4096, "/dev/sdc"), 0);
                sim::join(opener);
                EXPECT_EQ(start(0), 0);
                EXPECT_EQ(write_node(0, 0, 1), 0);
            },
            1, options);
    });
}
