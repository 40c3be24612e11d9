// tests/unit/snap/snap_start_test.cpp: the start of a snapshot
// SPDX-License-Identifier: GPL-2.0-only
#include "os/time.h"
#include "tests/support/snap_world.h"

using namespace snap_world;

namespace {

const std::string kStart = "trak_block_start_device(): ";

void with_snap(const std::function<void(Machine &)> &fn, int debug = 4,
               std::uint32_t chunk_size = 4096) {
    Machine machine;
    prepare(machine);
    fill_disk(machine);
    boot(
        machine,
        [&] {
            make_snap(chunk_size);
            fn(machine);
        },
        debug);
}

void expect_not_started(Machine &) {
    EXPECT_FALSE(is_started(1));
    EXPECT_EQ(snap(1).cow_data_file, nullptr);
    EXPECT_EQ(snap(1).cow_bmp_file, nullptr);
    EXPECT_EQ(snap(1).cowbmp.pages, nullptr);
    EXPECT_FALSE(sim::is_frozen(node_dev(0)));
    EXPECT_FALSE(sim::is_frozen(kDisk));
    EXPECT_EQ(filter(0).snap_rwlock.count, 0);
}

}  // namespace

TEST(snap_start, files_get_their_sizes_and_the_snap_is_valid) {
    with_snap(
        [](Machine &machine) {
            machine.storage.write_file(bmp_path(1), Bytes(100, 0xff));
            machine.storage.write_file(data_path(1), Bytes(5, 0xff));
            ASSERT_EQ(start(1), 0);
            EXPECT_BYTES(machine.storage.read_file_durable(bmp_path(1)), Bytes(8));
            EXPECT_BYTES(machine.storage.read_file_durable(data_path(1)), Bytes(kDiskSize));
            EXPECT_TRUE(is_started(1));
            EXPECT_EQ(snap(1).snap_valid, 1u);
            EXPECT_TRUE(logged(3, kStart + "trak(100, 1) has been started successfully"));
            EXPECT_BYTES(contents(1, 0, 2048), pattern(0, 2048));
        },
        3, 16384);
}

TEST(snap_start, started_snap_is_not_started_again) {
    with_snap([](Machine &) {
        ASSERT_EQ(start(1), 0);
        EXPECT_EQ(start(1), -EALREADY);
        EXPECT_TRUE(is_started(1));
    });
}

TEST(snap_start, defunct_snap_is_not_started) {
    with_snap([](Machine &) {
        ASSERT_EQ(add_snap(2), 0);
        ASSERT_EQ(start(1), 0);
        ASSERT_EQ(start(2), 0);
        ASSERT_EQ(stop(2), 0);
        // Resumed as one that ran on when the module went, then stopped as such.
        ASSERT_EQ(stop(1), 0);
        ASSERT_EQ(resume(2, 1, 1), 0);
        ASSERT_EQ(start(2), -EALREADY);
        ASSERT_EQ(stop(2), 0);
        EXPECT_EQ(start(2), 0);
        ASSERT_EQ(stop(2), 0);
        snap(2).stop_pending = 1;
        EXPECT_EQ(start(2), -EINVAL);
        EXPECT_TRUE(logged_error(kStart + "Cannot restart a DEFUNCT snap device."));
    });
}

TEST(snap_start, filter_and_its_thread_are_started_with_it) {
    Machine machine;
    prepare(machine);
    boot(machine, [] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(add_snap(1), 0);
        EXPECT_EQ(filter(0).cowthread.pid, 0);
        ASSERT_EQ(start(1), 0);
        EXPECT_TRUE(is_started(0));
        EXPECT_NE(filter(0).cowthread.pid, 0);
        EXPECT_STREQ(filter(0).cowthread.name, "kcowd");
        EXPECT_EQ(filter(0).cowthread.owner, node(0));
    });
}

TEST(snap_start, file_system_of_the_filter_is_frozen_and_thawed) {
    with_snap([](Machine &) {
        bool frozen = false;
        os_bdev *mounted = open_node(0);
        sim::on_freeze(node_dev(0), [&] {
            frozen = true;
            // What the file system writes itself when it is frozen.
            EXPECT_EQ(sim::write_device(mounted, 0, Bytes(512, 0xee)), 0);
            EXPECT_FALSE(is_started(1));
        });
        ASSERT_EQ(start(1), 0);
        EXPECT_TRUE(frozen);
        EXPECT_FALSE(sim::is_frozen(node_dev(0)));
        EXPECT_BYTES(contents(1, 0, 1), Bytes(512, 0xee));
        sim::close_device(mounted);
    });
}

TEST(snap_start, without_an_open_filter_the_file_system_of_the_disk_is_frozen) {
    with_snap([](Machine &) {
        bool frozen = false;
        sim::on_freeze(kDisk, [&] { frozen = true; });
        ASSERT_EQ(start(1), 0);
        EXPECT_TRUE(frozen);
    });
}

TEST(snap_start, failed_freeze_fails_it) {
    with_snap([](Machine &machine) {
        sim::attach_file_system(node_dev(0));
        os_bdev *mounted = open_node(0);
        int rc = 0;
        std::uint64_t nth = 1;
        for (; nth < 10; ++nth) {  // the first ones are the syncs of the COW files
            sim::fail_nth(sim::Fault::kFlush, nth);
            rc = start(1);
            sim::fail_none();
            if (rc == 0)
                break;
            EXPECT_EQ(rc, -EIO);
            expect_not_started(machine);
        }
        EXPECT_GE(nth, 4u);
        EXPECT_EQ(rc, 0);
        sim::close_device(mounted);
    });
}

TEST(snap_start, failed_sync_of_a_new_file_fails_it) {
    with_snap([](Machine &machine) {
        for (const std::string &path : {bmp_path(1), data_path(1)}) {
            machine.storage.fail_path(path, sim::Fault::kFlush, -EIO);
            EXPECT_EQ(start(1), -EIO);
            expect_not_started(machine);
            machine.storage.fail_path(path, sim::Fault::kFlush, 0);
        }
        EXPECT_EQ(start(1), 0);
    });
}

TEST(snap_start, file_that_can_not_be_made_or_sized_fails_it) {
    with_snap([](Machine &machine) {
        for (const std::string &path : {bmp_path(1), data_path(1)}) {
            for (const sim::Fault kind : {sim::Fault::kOpen, sim::Fault::kWrite}) {
                machine.storage.fail_path(path, kind, -ENOSPC);
                EXPECT_EQ(start(1), -EIO);
                expect_not_started(machine);
                machine.storage.fail_path(path, kind, 0);
            }
        }
        EXPECT_EQ(start(1), 0);
    });
}

TEST(snap_start, every_single_failure_leaves_it_stopped_and_the_disk_going) {
    Machine machine;
    prepare(machine);
    for (const sim::Fault kind : {sim::Fault::kAlloc, sim::Fault::kOpen, sim::Fault::kWrite,
                                  sim::Fault::kFlush, sim::Fault::kRead}) {
        // The thread's working set is thousands of allocations: all of the first, some of the rest.
        for (std::uint64_t nth = 1; nth < 2200; nth += nth < 60 ? 1 : 97) {
            bool reached = true;
            boot(machine, [&] {
                make_snap();
                const std::uint64_t before = sim::fault_points(kind);
                sim::fail_nth(kind, nth);
                const int rc = start(1);
                reached = sim::fault_points(kind) - before >= nth;
                sim::fail_none();
                if (rc != 0) {
                    EXPECT_TRUE(rc == -ENOMEM || rc == -EIO || rc == -EFAULT) << rc;
                    expect_not_started(machine);
                }
                EXPECT_EQ(write_node(0, 8, 8), 0);
                if (rc != 0) {
                    EXPECT_EQ(start(1), 0);
                }
                EXPECT_EQ(write_node(0, 8, 8), 0);
            });
            if (!reached || ::testing::Test::HasFailure())
                break;
        }
    }
}

TEST(snap_start, thread_that_can_not_start_fails_it) {
    with_snap([](Machine &machine) {
        bool seen = false;
        for (std::uint64_t nth = 1; nth < 10 && !seen; ++nth) {
            sim::fail_nth(sim::Fault::kOpen, nth);
            const int rc = start(1);
            sim::fail_none();
            seen = rc == -ENOMEM || rc == -EIO || rc == -EAGAIN;
            if (seen) {
                EXPECT_NE(whole_log().find("trak_cowthread_start(): Failed to start COW thread "
                                           "kcowd: rc=" +
                                           std::to_string(rc)),
                          std::string::npos)
                    << whole_log();
                expect_not_started(machine);
            }
        }
        EXPECT_TRUE(seen);
    });
}

TEST(snap_start, thread_without_memory_fails_it_and_the_next_start_makes_another) {
    with_snap([](Machine &machine) {
        sim::fail_nth(sim::Fault::kAlloc, 20);  // among the pages of the working set
        EXPECT_EQ(start(1), -ENOMEM);
        sim::fail_none();
        EXPECT_TRUE(logged_error("cow_worker(): Memory allocation failed."));
        expect_not_started(machine);
        EXPECT_EQ(write_node(0, 0, 8), 0);
        EXPECT_EQ(start(1), 0);
        EXPECT_EQ(write_node(0, 0, 8), 0);
        EXPECT_TRUE(marked(machine, 1, 0));
    });
}

TEST(snap_start, busy_filter_times_it_out_after_a_minute) {
    with_snap(
        [](Machine &machine) {
            sim::attach_file_system(node_dev(0));
            os_bdev *mounted = open_node(0);
            bool stop_it = false;
            // A request that is in the filter's path for ever.
            sim::Process *busy = sim::spawn("busy", [&] {
                zuread_lock(&filter(0).snap_rwlock);
                while (!stop_it)
                    sim::sleep_ms(100);
                zuread_unlock(&filter(0).snap_rwlock);
            });
            sim::wait_until([] { return filter(0).snap_rwlock.count == 1; });
            EXPECT_EQ(start(1), -EAGAIN);
            stop_it = true;
            sim::join(busy);
            EXPECT_TRUE(logged_error(
                kStart + "Timed out waiting for FS on trak(100, 0) (trak0) to stabilize."));
            EXPECT_TRUE(
                logged(4, kStart + "Waiting for FS on trak(100, 0) (trak0) to stabilize..."));
            expect_not_started(machine);
            EXPECT_EQ(start(1), 0);
            sim::close_device(mounted);
        },
        4);
}

TEST(snap_start, write_that_came_before_the_filter_had_a_snap_is_in_the_image) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        Machine machine;
        prepare(machine);
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                make_clean_filter();
                os_bdev *bdev = open_node(0);
                machine.disk.hold(true);
                sim::Request *write = sim::start_request(bdev, OS_BIO_WRITE, 8, Bytes(4096, 0xee));
                ASSERT_EQ(add_snap(1), 0);
                bool done = false;
                sim::Process *starter = sim::spawn("starter", [&] {
                    EXPECT_EQ(start(1), 0);
                    done = true;
                });
                sim::sleep_ms(100);
                EXPECT_FALSE(done);
                machine.disk.hold(false);
                sim::join(starter);
                EXPECT_TRUE(sim::request_done(write));
                EXPECT_BYTES(contents(1, 8, 8), Bytes(4096, 0xee));
                EXPECT_EQ(sim::wait_request(write, nullptr), 0);
                sim::close_device(bdev);
            },
            1, options);
    }
}

TEST(snap_start, stalled_disk_times_it_out_after_a_minute) {
    with_snap(
        [](Machine &machine) {
            os_bdev *bdev = open_node(0);
            machine.disk.hold(true);
            sim::Request *write = sim::start_request(bdev, OS_BIO_WRITE, 8, Bytes(4096, 0xee));
            const std::uint64_t began = os_jiffies();
            EXPECT_EQ(start(1), -EAGAIN);
            EXPECT_GE(os_jiffies() - began, 60000u);
            EXPECT_TRUE(logged_error(
                kStart + "Timed out waiting for FS on trak(100, 0) (trak0) to stabilize."));
            expect_not_started(machine);
            machine.disk.hold(false);
            EXPECT_EQ(sim::wait_request(write, nullptr), 0);
            EXPECT_EQ(start(1), 0);
            EXPECT_BYTES(contents(1, 8, 8), Bytes(4096, 0xee));
            sim::close_device(bdev);
        },
        1);
}

TEST(snap_start, comes_through_under_full_load) {
    for (std::uint64_t seed = 1; seed <= 10; ++seed) {
        Machine machine;
        prepare(machine);
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [] {
                make_snap();
                bool stop_it = false;
                std::vector<sim::Process *> writers;
                for (unsigned i = 0; i < 4; ++i)
                    writers.push_back(sim::spawn("writer", [&stop_it, i] {
                        os_bdev *bdev = open_node(0);
                        std::uint64_t sector = i * 400;
                        while (!stop_it) {
                            EXPECT_EQ(sim::write_device(bdev, sector, Bytes(2048)), 0);
                            sector = (sector + 3) % 2000;
                        }
                        sim::close_device(bdev);
                    }));
                sim::sleep_ms(5);
                EXPECT_EQ(start(1), 0);
                stop_it = true;
                for (sim::Process *writer : writers)
                    sim::join(writer);
            },
            1, options);
    }
}

TEST(snap_start, one_that_starts_while_a_later_made_one_runs_counts_as_newer) {
    with_snap([](Machine &) {
        ASSERT_EQ(add_snap(2), 0);
        ASSERT_EQ(add_snap(3), 0);
        ASSERT_EQ(start(2), 0);
        ASSERT_EQ(write_node(0, 0, 8, 1), 0);
        ASSERT_EQ(start(1), 0);
        ASSERT_EQ(write_node(0, 0, 8, 2), 0);
        trak_info_arg info{};
        ASSERT_EQ(command(TRAK_GET_INFO, info), 0);
        EXPECT_EQ(info.snaps, 3u);
        EXPECT_EQ(info.snap_minors[0], 2u);
        EXPECT_EQ(info.snap_minors[1], 3u);
        EXPECT_EQ(info.snap_minors[2], 1u);
        EXPECT_BYTES(contents(2, 0, 8), pattern(0, 8));
        EXPECT_BYTES(contents(1, 0, 8), Bytes(4096, 1));
        ASSERT_EQ(stop(1), 0);  // the older one runs: it goes on
        EXPECT_TRUE(is_started(1));
    });
}

TEST(snap_start, requests_that_an_earlier_life_tagged_lose_their_tag) {
    with_snap([](Machine &machine) {
        ASSERT_EQ(add_snap(2), 0);
        ASSERT_EQ(start(1), 0);
        machine.disk.hold(true);
        os_bdev *bdev = open_node(0);
        sim::Request *head = sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(4096));
        sim::Request *next = sim::start_request(bdev, OS_BIO_WRITE, 64, Bytes(4096));
        trak_cowqueue &queue = filter(0).cowqueue;
        ASSERT_EQ(queue.cnt.load(), 2);
        sim::sleep_ms(20);
        // The stop waits for the head, which waits for the disk.
        sim::Process *stopper = sim::spawn("stopper", [] { EXPECT_EQ(stop(1), 0); });
        sim::wait_until([] { return !is_started(1); });
        sim::sleep_ms(20);
        EXPECT_NE(snap(1).cow_data_file, nullptr);
        machine.disk.hold(false);
        sim::join(stopper);
        EXPECT_EQ(sim::wait_request(head, nullptr), 0);
        EXPECT_EQ(sim::wait_request(next, nullptr), 0);

        // A request of that tag in the queue of a filter whose thread can't take it away. What came before
        // the start would be waited for: these come when the file system is frozen.
        ASSERT_EQ(start(1), 0);
        sim::on_freeze(node_dev(0), [&] {
            machine.disk.hold(true);
            head = sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(4096));
            next = sim::start_request(bdev, OS_BIO_WRITE, 64, Bytes(4096));
            ASSERT_EQ(queue.cnt.load(), 2);
            trak_container_of(queue.requests.prev, cow_request, link)->snap_minor = 2;
        });
        sim::Process *starter = sim::spawn("starter", [] { EXPECT_EQ(start(2), 0); });
        sim::wait_until([] { return is_started(2); });
        EXPECT_EQ(trak_container_of(queue.requests.prev, cow_request, link)->snap_minor,
                  static_cast<std::uint32_t>(-1));
        EXPECT_EQ(trak_container_of(queue.requests.next, cow_request, link)->snap_minor, 1u);
        machine.disk.hold(false);
        sim::join(starter);
        EXPECT_EQ(sim::wait_request(head, nullptr), 0);
        EXPECT_EQ(sim::wait_request(next, nullptr), 0);
        sim::close_device(bdev);
    });
}
