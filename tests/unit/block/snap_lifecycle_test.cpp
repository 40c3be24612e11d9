// tests/unit/block/snap_lifecycle_test.cpp: chains of stops and deletes of a filter and its snaps
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/lifecycle.h"

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

}  // namespace

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

// The kernel takes a module's code away whatever its exit says, so that an unload may be held up by nothing
// but a node that is open: neither by a call that fails nor by one kind of call that does nothing else.
TEST(snap_lifecycle, unload_is_whole_whatever_fails_meanwhile) {
    constexpr auto kinds = static_cast<unsigned>(sim::Fault::kCount);
    std::uint64_t failed = 0;
    for (unsigned k = 0; k < kinds; ++k) {
        const auto kind = static_cast<sim::Fault>(k);
        bool done = false;
        for (std::uint64_t nth = 0; !done; ++nth) {  // 0: each one fails
            SCOPED_TRACE(testing::Message() << "fault " << k << " nth " << nth);
            Machine machine;
            with_cow_folder(machine).storage.add_disk("sdc", 8u << 20 | 32u, kDiskSize, 512);
            boot_bare(machine, [&] {
                ASSERT_EQ(trak_init(), 0);
                make_started_snaps();
                ASSERT_EQ(add_filter(7, 4096, "/dev/sdc"), 0);
                EXPECT_EQ(write_node(0, 8 * 9, 8), 0);
                EXPECT_EQ(stop(3), 0);  // both wait for the first snapshot
                EXPECT_EQ(del(2), 0);
                filter(0).incr_bmp_dirty = filter(0).diff_bmp_dirty = 1;
                const std::uint64_t before = sim::fault_points(kind);
                if (nth == 0)
                    sim::fail_random(kind, 1000);
                else
                    sim::fail_nth(kind, nth);
                EXPECT_EQ(trak_cleanup(), 0) << whole_log();
                const std::uint64_t calls = sim::fault_points(kind) - before;
                sim::fail_none();
                done = nth >= calls;
                failed += nth > 0 && nth <= calls ? 1 : 0;
                EXPECT_TRUE(sim::nodes().empty());
                EXPECT_FALSE(sim::proc_exists("/proc/trak"));
                EXPECT_EQ(sim::chr_read(0, 0), -ENODEV);
            });
            ASSERT_LT(nth, 200u);
        }
    }
    EXPECT_GE(failed, 10u);  // both maps' files are opened, written and synced
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
