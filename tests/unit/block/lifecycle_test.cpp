// tests/unit/block/lifecycle_test.cpp: start, stop, delete, load and unload of the block side
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/lifecycle.h"

#include "driver/block/kdirtyd.h"
#include "os/sim/seeds.h"
#include "tests/unit/block/bitmap_image.h"

using namespace driver_world;

namespace {

// COW files need a file system with a device of its own.
Machine &with_cow_folder(Machine &machine) {
    machine.storage.mkdir("/cow");
    machine.storage.mount("/cow", 8u << 20 | 99u);
    return machine;
}

int add_snap(std::uint32_t filter_minor, std::int32_t snap_minor) {
    trak_add_snap_arg arg{};
    arg.filter_minor = filter_minor;
    arg.snap_minor = snap_minor;
    arg.chunk_size = 4096;
    const std::string name = "/cow/" + std::to_string(snap_minor);
    std::strncpy(arg.cow_bmp_fname, (name + ".bmp").c_str(), sizeof arg.cow_bmp_fname);
    std::strncpy(arg.cow_data_fname, (name + ".data").c_str(), sizeof arg.cow_data_fname);
    return command(TRAK_ADD_SNAP_NODE, arg);
}

os_bdev *open_snap(std::uint32_t minor) {
    int err = 0;
    return sim::open_device(node_dev(minor), OS_FMODE_READ, &err);
}

// Filter 0 with snaps 1, 2, 3, all started, oldest first.
void make_started_snaps() {
    ASSERT_EQ(add_filter(0), 0);
    for (int minor = 1; minor <= 3; ++minor)
        ASSERT_EQ(add_snap(0, minor), 0) << whole_log();
    for (std::uint32_t minor = 0; minor <= 3; ++minor)
        ASSERT_EQ(start(minor), 0) << whole_log();
}

// Lines that contain the part, in the order of the log, without what stands before it.
std::string order_of(std::string_view part) {
    std::string order;
    for (const std::string &line : sim::log()) {
        const auto at = line.find(part);
        if (at != std::string::npos)
            order += line.substr(at) + "; ";
    }
    return order;
}

}  // namespace

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

TEST(lifecycle, unknown_minors_are_refused_and_delete_answers_with_positive_22) {
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
        {
            const zuwrite_guard table(&trak_blkdev_rwlock);
            EXPECT_EQ(trak_block_destroy_device(node(0), 1), -EBUSY);
        }
        EXPECT_TRUE(logged_error("trak_block_destroy_device(): trak(100, 0)is still being used."));
        sim::close_device(bdev);
        {
            const zuwrite_guard table(&trak_blkdev_rwlock);
            EXPECT_EQ(trak_block_destroy_device(node(0), 1), -EBUSY);
            EXPECT_EQ(trak_block_destroy_device(nullptr, 1), -EINVAL);
        }
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

// ---- open, release, ioctl ---------------------------------------------------------------------

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
    sim::for_each_seed(60, [](std::uint64_t seed) {
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

// ---- snaps --------------------------------------------------------------------------------------

TEST(snap_lifecycle, starting_a_snap_starts_its_filter) {
    Machine machine;
    with_cow_folder(machine);
    boot(
        machine,
        [&] {
            ASSERT_EQ(add_filter(0), 0);
            ASSERT_EQ(add_snap(0, 1), 0) << whole_log();
            EXPECT_EQ(start(1), 0) << whole_log();
            EXPECT_EQ(node(0)->started, 1u);
            EXPECT_EQ(node(1)->started, 1u);
            EXPECT_EQ(count_messages(3, "trak_block_start_device(): trak(100, 1) has been started "
                                        "successfully"),
                      1u);
            EXPECT_EQ(count_messages(3, "trak_block_start_device(): trak(100, 0) has been started "
                                        "successfully"),
                      1u);
            EXPECT_EQ(start(1), -EALREADY);
        },
        3);
}

TEST(snap_lifecycle, stopping_a_filter_stops_its_snaps_oldest_first) {
    Machine machine;
    with_cow_folder(machine);
    boot(
        machine,
        [&] {
            make_started_snaps();
            sim::clear_log();
            EXPECT_EQ(stop(0), 0) << whole_log();
            for (std::uint32_t minor = 0; minor <= 3; ++minor)
                EXPECT_EQ(node(minor)->started, 0u) << minor;
            EXPECT_EQ(order_of("trak_block_stop_device(): trak("),
                      "trak_block_stop_device(): trak(100, 1) has been stopped successfully; "
                      "trak_block_stop_device(): trak(100, 2) has been stopped successfully; "
                      "trak_block_stop_device(): trak(100, 3) has been stopped successfully; "
                      "trak_block_stop_device(): trak(100, 0) has been stopped successfully; ");
        },
        3);
}

TEST(snap_lifecycle, an_open_snap_keeps_its_filter_running) {
    Machine machine;
    with_cow_folder(machine);
    boot(machine, [&] {
        make_started_snaps();
        os_bdev *bdev = open_snap(2);
        ASSERT_NE(bdev, nullptr);
        EXPECT_EQ(stop(0), -EBUSY);
        EXPECT_TRUE(logged_error("trak_block_stop_device(): trak(100, 2) is still being used."));
        EXPECT_EQ(node(0)->started, 1u);
        EXPECT_EQ(node(1)->started, 0u);
        EXPECT_EQ(node(2)->started, 1u);
        sim::close_device(bdev);
        EXPECT_EQ(stop(0), 0);
    });
}

TEST(snap_lifecycle, stop_of_a_snap_waits_for_older_ones_and_then_happens) {
    Machine machine;
    with_cow_folder(machine);
    boot(
        machine,
        [&] {
            make_started_snaps();
            EXPECT_EQ(stop(2), 0);
            EXPECT_EQ(stop(3), 0);
            EXPECT_TRUE(logged(1,
                               "trak_block_stop_device(): Postponing stop of trak(100, 2), since "
                               "there are other snaps depending on this one."));
            EXPECT_TRUE(logged(1,
                               "trak_block_stop_device(): Postponing stop of trak(100, 3), since "
                               "there are other snaps depending on this one."));
            EXPECT_EQ(sim::count_log("stopped successfully"), 0u);
            EXPECT_EQ(node(2)->started, 1u);
            EXPECT_EQ(node(2)->snap.stop_pending, 1u);
            sim::clear_log();
            EXPECT_EQ(stop(1), 0);
            for (std::uint32_t minor = 1; minor <= 3; ++minor)
                EXPECT_EQ(node(minor)->started, 0u) << minor;
            // Each is stopped once what followed from its stop is.
            EXPECT_EQ(order_of("trak_block_stop_device(): "),
                      "trak_block_stop_device(): Stopping trak(100, 1); "
                      "trak_block_stop_device(): Stopping trak(100, 2); "
                      "trak_block_stop_device(): Stopping trak(100, 3); "
                      "trak_block_stop_device(): trak(100, 3) has been stopped successfully; "
                      "trak_block_stop_device(): trak(100, 2) has been stopped successfully; "
                      "trak_block_stop_device(): trak(100, 1) has been stopped successfully; ");
        },
        3);
}

TEST(snap_lifecycle, an_open_snap_ends_the_chain_without_failing_it) {
    Machine machine;
    with_cow_folder(machine);
    boot(machine, [&] {
        make_started_snaps();
        os_bdev *bdev = open_snap(2);
        ASSERT_NE(bdev, nullptr);
        EXPECT_EQ(stop(2), -EBUSY);
        sim::close_device(bdev);
        EXPECT_EQ(stop(2), 0);
        EXPECT_EQ(stop(3), 0);
        EXPECT_EQ(stop(1), 0);
        EXPECT_EQ(node(3)->started, 0u);
    });
}

TEST(snap_lifecycle, delete_of_a_needed_snap_is_postponed_and_then_happens) {
    Machine machine;
    with_cow_folder(machine);
    boot(
        machine,
        [&] {
            make_started_snaps();
            EXPECT_EQ(del(2), 0);
            EXPECT_TRUE(logged(1, "trak_block_destroy_device(): STOP is pending for trak(100, 2). "
                                  "Postponing delete as well."));
            ASSERT_NE(node(2), nullptr);
            EXPECT_EQ(node(2)->snap.del_pending, 1u);
            EXPECT_EQ(del(3), 0);
            sim::clear_log();
            EXPECT_EQ(del(1), 0);
            EXPECT_EQ(node(1), nullptr);
            EXPECT_EQ(node(2), nullptr);
            EXPECT_EQ(node(3), nullptr);
            EXPECT_EQ(sim::nodes().size(), 1u);
            EXPECT_EQ(
                order_of("trak_block_destroy_device(): "),
                "trak_block_destroy_device(): Destroying trak(100, 1); "
                "trak_block_destroy_device(): Destroying trak(100, 2); "
                "trak_block_destroy_device(): Destroying trak(100, 3); "
                "trak_block_destroy_device(): trak(100, 3) has been destroyed successfully; "
                "trak_block_destroy_device(): trak(100, 2) has been destroyed successfully; "
                "trak_block_destroy_device(): trak(100, 1) has been destroyed successfully; ");
            EXPECT_FALSE(machine.storage.exists("/cow/1.data"));
            EXPECT_FALSE(machine.storage.exists("/cow/3.bmp"));
        },
        3);
}

TEST(snap_lifecycle, deleting_a_filter_deletes_its_snaps_oldest_first) {
    Machine machine;
    with_cow_folder(machine);
    boot(
        machine,
        [&] {
            make_started_snaps();
            sim::clear_log();
            EXPECT_EQ(del(0), 0);
            EXPECT_TRUE(sim::nodes().empty());
            EXPECT_EQ(
                order_of("Deleting associated snap "),
                "Deleting associated snap trak(100, 1); Deleting associated snap trak(100, 2); "
                "Deleting associated snap trak(100, 3); ");
            EXPECT_FALSE(machine.storage.exists("/cow/2.data"));
        },
        3);
}

TEST(snap_lifecycle, unload_leaves_the_cow_files) {
    Machine machine;
    with_cow_folder(machine);
    boot(machine, [&] { make_started_snaps(); });
    for (const char *name : {"/cow/1.data", "/cow/1.bmp", "/cow/3.data", "/cow/3.bmp"})
        EXPECT_TRUE(machine.storage.exists(name)) << name;
}

TEST(snap_lifecycle, block_operations_of_a_snap_use_its_filters_disk) {
    Machine machine;
    with_cow_folder(machine);
    machine.disk.set_ioctl([](std::uint32_t, std::uint32_t, os_uaddr) { return 33; });
    boot(machine, [&] {
        make_started_snaps();
        os_bdev *bdev = open_snap(1);
        ASSERT_NE(bdev, nullptr);
        EXPECT_EQ(sim::device_ioctl(bdev, 0x1260, 0), 33);
        os_queue_unplug(os_bdev_queue(bdev));
        sim::clear_log();
        sim::close_device(bdev);
        EXPECT_EQ(sim::count_log("trak_block_save_dirty_bmps"), 0u);  // a filter's alone
    });
}

TEST(snap_lifecycle, commands_on_a_filter_and_its_snaps_race) {
    sim::for_each_seed(40, [](std::uint64_t seed) {
        Machine machine;
        with_cow_folder(machine);
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                make_started_snaps();
                std::vector<sim::Process *> tasks;
                for (std::uint32_t minor = 0; minor <= 3; ++minor) {
                    tasks.push_back(sim::spawn("admin", [minor] {
                        stop(minor);
                        start(minor);
                        if (sim::random(2) == 0)
                            del(minor);
                    }));
                }
                for (sim::Process *task : tasks)
                    sim::join(task);
            },
            1, options);
    });
}
