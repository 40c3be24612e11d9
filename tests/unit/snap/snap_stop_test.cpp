// tests/unit/snap/snap_stop_test.cpp: the stop of snapshots, postponed stops and cascades
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/snap_world.h"

using namespace snap_world;

namespace {

// Snaps 1, 2 and 3 run, started in this order; chunk n is preserved in snap n + 1.
void with_three(const std::function<void(Machine &)> &fn) {
    Machine machine;
    prepare(machine);
    fill_disk(machine);
    boot(
        machine,
        [&] {
            make_snap();
            ASSERT_EQ(add_snap(2), 0);
            ASSERT_EQ(add_snap(3), 0);
            for (std::uint32_t minor = 1; minor <= 3; ++minor) {
                ASSERT_EQ(start(minor), 0);
                ASSERT_EQ(write_node(0, (minor - 1) * 8, 8), 0);
            }
            fn(machine);
        },
        3);
}

std::string postponed(int minor) {
    return "trak_block_stop_device(): Postponing stop of trak(100, " + std::to_string(minor) +
           "), since there are other snaps depending on this one.";
}

}  // namespace

TEST(snap_stop, last_one_closes_its_files_and_frees_its_bitmaps) {
    Machine machine;
    prepare(machine);
    boot(machine, [&] {
        make_started_snap();
        ASSERT_EQ(write_node(0, 0, 8), 0);
        ASSERT_EQ(stop(1), 0);
        EXPECT_FALSE(is_started(1));
        EXPECT_EQ(snap(1).cow_data_file, nullptr);
        EXPECT_EQ(snap(1).cow_bmp_file, nullptr);
        EXPECT_EQ(snap(1).cowbmp.pages, nullptr);
        EXPECT_EQ(snap(1).blkbmp.frags, nullptr);
        EXPECT_EQ(stop(1), 0);
        EXPECT_TRUE(marked(machine, 1, 0));  // the files stay
    });
}

TEST(snap_stop, newer_one_runs_on_while_an_older_one_does) {
    with_three([](Machine &) {
        EXPECT_EQ(stop(2), 0);
        EXPECT_TRUE(logged(1, postponed(2)));
        EXPECT_TRUE(is_started(2));
        EXPECT_EQ(snap(2).stop_pending, 1u);
        EXPECT_EQ(snap(3).stop_pending, 0u);
        // It serves the older one, and nobody else.
        EXPECT_BYTES(contents(1, 0, 64), pattern(0, 64));
        EXPECT_BYTES(contents(2, 0, 8), Bytes{});
        EXPECT_TRUE(logged_error("trak_make_request(): I/O request for trak(100, 2), which is in "
                                 "STOP_PENDING state or INVALID."));
    });
}

TEST(snap_stop, stop_of_the_oldest_stops_those_that_waited_for_it) {
    with_three([](Machine &) {
        ASSERT_EQ(stop(2), 0);
        ASSERT_EQ(stop(3), 0);
        ASSERT_EQ(stop(1), 0);
        for (std::uint32_t minor = 1; minor <= 3; ++minor) {
            EXPECT_FALSE(is_started(minor)) << minor;
            EXPECT_EQ(snap(minor).stop_pending, 0u) << minor;
        }
    });
}

TEST(snap_stop, cascade_ends_at_the_first_that_nobody_stopped) {
    with_three([](Machine &) {
        ASSERT_EQ(stop(3), 0);
        ASSERT_EQ(stop(1), 0);
        EXPECT_FALSE(is_started(1));
        EXPECT_TRUE(is_started(2));
        EXPECT_TRUE(is_started(3));
        EXPECT_EQ(snap(3).stop_pending, 1u);
        EXPECT_BYTES(contents(2, 8, 64), pattern(8, 64));
        ASSERT_EQ(stop(2), 0);
        EXPECT_FALSE(is_started(3));
    });
}

TEST(snap_stop, delete_of_a_defunct_one_waits_with_its_stop) {
    with_three([](Machine &machine) {
        EXPECT_EQ(del(3), 0);
        EXPECT_EQ(snap(3).del_pending, 1u);
        EXPECT_BYTES(contents(1, 0, 64), pattern(0, 64));
        ASSERT_EQ(del(1), 0);
        ASSERT_EQ(del(2), 0);
        EXPECT_EQ(node(1), nullptr);
        EXPECT_EQ(node(2), nullptr);
        EXPECT_EQ(node(3), nullptr);
        for (int minor = 1; minor <= 3; ++minor) {
            EXPECT_FALSE(machine.storage.exists(bmp_path(minor)));
            EXPECT_FALSE(machine.storage.exists(data_path(minor)));
        }
        EXPECT_TRUE(trak_list_empty(&filter(0).snaps));
    });
}

TEST(snap_stop, open_one_is_not_stopped) {
    with_three([](Machine &) {
        int err = 0;
        os_bdev *bdev = sim::open_device(node_dev(1), OS_FMODE_READ, &err);
        EXPECT_EQ(stop(1), -EBUSY);
        EXPECT_TRUE(is_started(1));
        sim::close_device(bdev);
        EXPECT_EQ(stop(1), 0);
    });
}

TEST(snap_stop, stop_of_the_filter_stops_all_and_their_thread) {
    with_three([](Machine &) {
        ASSERT_EQ(stop(0), 0);
        for (std::uint32_t minor = 0; minor <= 3; ++minor)
            EXPECT_FALSE(is_started(minor)) << minor;
        EXPECT_EQ(filter(0).cowthread.pid, 0);
    });
}

TEST(snap_stop, stop_waits_until_the_thread_has_finished_the_head) {
    Machine machine;
    prepare(machine);
    fill_disk(machine);
    boot(machine, [&] {
        make_started_snap();
        os_bdev *bdev = open_node(0);
        machine.disk.hold(true);
        sim::Request *head = sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(4096));
        sim::sleep_ms(20);  // the thread reads what the write needs preserved
        bool stopped = false;
        sim::Process *stopper = sim::spawn("stopper", [&] {
            EXPECT_EQ(stop(1), 0);
            stopped = true;
        });
        sim::wait_until([] { return !is_started(1); });
        sim::sleep_ms(50);
        EXPECT_FALSE(stopped);
        EXPECT_NE(snap(1).cow_data_file, nullptr);
        machine.disk.hold(false);
        sim::join(stopper);
        EXPECT_EQ(sim::wait_request(head, nullptr), 0);
        sim::close_device(bdev);
    });
}

TEST(snap_stop, module_goes_with_snaps_running_and_leaves_their_files) {
    Machine machine;
    prepare(machine);
    boot(machine, [] { make_started_snap(); });
    EXPECT_TRUE(machine.storage.exists(bmp_path(1)));
    EXPECT_EQ(machine.storage.read_file(data_path(1)).size(), kDiskSize);
}
