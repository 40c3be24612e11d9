// tests/unit/snap/cowthread_test.cpp: kcowd and what it does with its queue
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/snap_list.h"
#include "tests/unit/snap/own_bio.h"

using namespace snap_world;
using namespace snap_test;

namespace {

// Snap 1 of a filled disk runs.
void with_running(const std::function<void(Machine &)> &fn, std::uint32_t chunk_size = 4096,
                  std::uint64_t disk_size = kDiskSize, int debug = 2) {
    Machine machine(disk_size);
    prepare(machine);
    fill_disk(machine);
    boot(
        machine,
        [&] {
            make_started_snap(chunk_size);
            fn(machine);
        },
        debug);
}

std::string given_up(const char *function, int minor) {
    return std::string(function) + "(): Invalidating snap device trak(100, " +
           std::to_string(minor) + ")";
}

// A write through the filter that stays queued, at the head, while the disk is held.
sim::Request *stuck_write(Machine &machine, os_bdev *bdev, std::uint64_t sector) {
    machine.disk.hold(true);
    sim::Request *request = sim::start_request(bdev, OS_BIO_WRITE, sector, Bytes(4096, 0x11));
    sim::sleep_ms(5);
    return request;
}

void expect_given_up(Machine &machine, const char *function) {
    EXPECT_TRUE(logged(1, given_up(function, 1))) << whole_log();
    EXPECT_EQ(snap(1).snap_valid, 0u);
    EXPECT_TRUE(machine.storage.read_file_durable(data_path(1)).empty());
    EXPECT_BYTES(contents(1, 512, 8), Bytes{});
    EXPECT_TRUE(logged_error("trak_make_request(): I/O request for trak(100, 1), which is in "
                             "STOP_PENDING state or INVALID."));
    EXPECT_EQ(write_node(0, 512, 8), 0);  // the disk goes on
}

}  // namespace

TEST(cowthread, says_what_it_works_with) {
    with_running([](Machine &) {
        EXPECT_TRUE(logged(1, "cow_worker(): Initializing..."));
        EXPECT_TRUE(logged(1, "cow_worker(): COW will be done in groups of 4194304 bytes"));
        EXPECT_TRUE(
            logged(1, "cow_worker(): Preallocated 1024 pages and 1024 bio for 1024 chunks"));
        const std::string pid = std::to_string(filter(0).cowthread.pid);
        EXPECT_TRUE(
            logged(1, "trak_cowthread_start(): Successfully started COW thread kcowd. pid=" + pid +
                          "..."));
    });
}

TEST(cowthread, second_start_is_refused) {
    with_running([](Machine &) {
        trak_cowthread &thread = filter(0).cowthread;
        EXPECT_EQ(trak_cowthread_start(&thread, "kcowd", node(0)), -EALREADY);
        EXPECT_TRUE(logged_error("trak_cowthread_start(): COW thread is already running: pid=" +
                                 std::to_string(thread.pid)));
        EXPECT_EQ(write_node(0, 0, 8), 0);
    });
}

TEST(cowthread, name_that_is_missing_or_too_long_is_made_good) {
    Machine machine;
    boot(machine, [] {
        ASSERT_EQ(add_filter(0), 0);
        trak_cowthread &thread = filter(0).cowthread;
        ASSERT_EQ(trak_cowthread_start(&thread, nullptr, node(0)), 0);
        EXPECT_STREQ(thread.name, "kcowd");
        EXPECT_EQ(trak_cowthread_shutdown(&thread), 0);
        ASSERT_EQ(trak_cowthread_start(&thread, "", node(0)), 0);
        EXPECT_STREQ(thread.name, "kcowd");
        EXPECT_EQ(trak_cowthread_shutdown(&thread), 0);
        ASSERT_EQ(trak_cowthread_start(&thread, std::string(80, 'k').c_str(), node(0)), 0);
        EXPECT_EQ(std::strlen(thread.name), 63u);
        EXPECT_EQ(trak_cowthread_abort(&thread), 0);
    });
}

TEST(cowthread, null_record_is_refused_and_one_that_does_not_run_is_left_alone) {
    Machine machine;
    boot(machine, [] {
        ASSERT_EQ(add_filter(0), 0);
        EXPECT_EQ(trak_cowthread_start(nullptr, "kcowd", node(0)), -EINVAL);
        EXPECT_EQ(trak_cowthread_shutdown(nullptr), -EINVAL);
        EXPECT_EQ(trak_cowthread_abort(nullptr), -EINVAL);
        for (const char *fn : {"start", "shutdown", "abort"})
            EXPECT_TRUE(logged_error("trak_cowthread_" + std::string(fn) +
                                     "(): NULL thread pointer passed as input"));
        EXPECT_EQ(trak_cowthread_shutdown(&filter(0).cowthread), 0);
        EXPECT_EQ(trak_cowthread_abort(&filter(0).cowthread), 0);
    });
}

TEST(cowthread, shutdown_waits_until_the_queue_is_empty) {
    with_running([](Machine &machine) {
        trak_cowthread &thread = filter(0).cowthread;
        const std::string pid = std::to_string(thread.pid);
        os_bdev *bdev = open_node(0);
        sim::Request *write = stuck_write(machine, bdev, 0);
        bool ended = false;
        sim::Process *stopper = sim::spawn("stopper", [&] {
            EXPECT_EQ(trak_cowthread_shutdown(&thread), 0);
            ended = true;
        });
        sim::sleep_ms(50);
        EXPECT_FALSE(ended);
        machine.disk.hold(false);
        sim::join(stopper);
        EXPECT_EQ(sim::wait_request(write, nullptr), 0);
        EXPECT_TRUE(
            logged(1, "trak_cowthread_shutdown(): Stopping COW thread kcowd (pid=" + pid + ")..."));
        EXPECT_EQ(thread.pid, 0);
        EXPECT_EQ(thread.owner, nullptr);
        sim::close_device(bdev);
    });
}

TEST(cowthread, abort_fails_what_is_queued) {
    with_running([](Machine &machine) {
        trak_cowthread &thread = filter(0).cowthread;
        const std::string pid = std::to_string(thread.pid);
        os_bdev *bdev = open_node(0);
        sim::Request *head = stuck_write(machine, bdev, 0);
        sim::Request *next = sim::start_request(bdev, OS_BIO_WRITE, 64, Bytes(4096));
        sim::Process *stopper =
            sim::spawn("stopper", [&] { EXPECT_EQ(trak_cowthread_abort(&thread), 0); });
        sim::sleep_ms(20);
        machine.disk.hold(false);  // it may only go once its own reads came back
        sim::join(stopper);
        EXPECT_EQ(sim::wait_request(next, nullptr), -EIO);
        const int rc = sim::wait_request(head, nullptr);
        EXPECT_TRUE(rc == 0 || rc == -EIO) << rc;
        EXPECT_TRUE(
            logged(1, "trak_cowthread_abort(): Aborting COW thread kcowd (pid=" + pid + ")..."));
        EXPECT_TRUE(logged(1, "trak_cowqueue_purge(): Purging all COW queue requests"));
        EXPECT_EQ(thread.pid, 0);
        sim::close_device(bdev);
        EXPECT_EQ(stop(1), 0);
    });
}

TEST(cowthread, chunk_lies_at_its_own_offset_of_the_data_file) {
    with_running(
        [](Machine &machine) {
            ASSERT_EQ(write_node(0, 5 * 16 + 3, 1), 0);
            EXPECT_TRUE(
                logged(2, "cow_chunks(): COWing 1 chunks (2 pages), snap_minor=1, queue_cnt=1"))
                << whole_log();
            Bytes expected(kDiskSize);
            const Bytes chunk = pattern(5 * 16, 16);
            std::copy(chunk.begin(), chunk.end(), expected.begin() + 40960);
            EXPECT_BYTES(machine.storage.read_file_durable(data_path(1)), expected);
            EXPECT_EQ(machine.storage.read_file_durable(bmp_path(1)).at(0), 1 << 5);
        },
        8192);
}

TEST(cowthread, write_larger_than_a_group_is_preserved_in_several) {
    constexpr std::uint64_t size = 9 << 20;
    with_running(
        [](Machine &) {
            ASSERT_EQ(write_node(0, 1, (size >> 9) - 1), 0);
            EXPECT_EQ(count_messages(2, "cow_chunks(): COWing 1024 chunks (1024 pages), "
                                        "snap_minor=1, queue_cnt=1"),
                      2u);
            EXPECT_EQ(count_messages(2, "cow_chunks(): COWing 256 chunks (256 pages), "
                                        "snap_minor=1, queue_cnt=1"),
                      1u);
            EXPECT_BYTES(contents(1, 0, size >> 9), pattern(0, size >> 9));
        },
        4096, size);
}

TEST(cowthread, chunk_larger_than_a_group_is_copied_in_batches) {
    constexpr std::uint64_t size = (9 << 20) + 512;
    with_running(
        [](Machine &) {
            ASSERT_EQ(write_node(0, 77, 1), 0);
            EXPECT_TRUE(
                logged(2, "cow_chunks(): COWing 1 chunks (2048 pages), snap_minor=1, queue_cnt=1"));
            EXPECT_BYTES(contents(1, 0, size >> 9), pattern(0, size >> 9));
            ASSERT_EQ(write_node(0, size / 512 - 1, 1), 0);  // the second chunk, cut short
            EXPECT_BYTES(contents(1, 0, size >> 9), pattern(0, size >> 9));
        },
        8 << 20, size);
}

TEST(cowthread, last_chunk_ends_with_the_disk) {
    constexpr std::uint64_t size = 3 * 16384 + 5 * 512;
    with_running(
        [](Machine &machine) {
            ASSERT_EQ(write_node(0, 96, 5), 0);
            EXPECT_BYTES(contents(1, 90, 11), pattern(90, 11));
            const Bytes file = machine.storage.read_file(data_path(1));
            ASSERT_EQ(file.size(), 4u * 16384);
            const Bytes chunk(file.begin() + 3 * 16384, file.end());
            Bytes expected = pattern(96, 5);
            expected.resize(16384);
            EXPECT_BYTES(chunk, expected);
        },
        16384, size);
}

TEST(cowthread, requests_behind_the_head_are_preserved_with_it) {
    with_running([](Machine &machine) {
        os_bdev *bdev = open_node(0);
        std::vector<sim::Request *> requests = {stuck_write(machine, bdev, 800)};
        for (const std::uint64_t sector : {0, 4, 64, 70})  // chunks 0 twice, 8 twice, 9
            requests.push_back(sim::start_request(bdev, OS_BIO_WRITE, sector, Bytes(2048, 1)));
        requests.push_back(sim::start_request(bdev, OS_BIO_WRITE, 72, Bytes(2048, 1)));
        ASSERT_EQ(filter(0).cowqueue.cnt.load(), 6);
        machine.disk.hold(false);
        for (sim::Request *request : requests)
            EXPECT_EQ(sim::wait_request(request, nullptr), 0);
        EXPECT_TRUE(logged(2, "cow_chunks(): COWing 3 chunks (3 pages), snap_minor=1, queue_cnt=5"))
            << whole_log();
        EXPECT_BYTES(contents(1, 0, 128), pattern(0, 128));
        sim::close_device(bdev);
    });
}

TEST(cowthread, discards_and_zeroes_are_preserved_like_writes) {
    with_running([](Machine &) {
        os_bdev *bdev = open_node(0);
        Bytes two(2 * 4096);
        EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | OS_BIO_DISCARD, 8, two), 0);
        EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | OS_BIO_ZEROES, 64, two), 0);
        EXPECT_BYTES(contents(1, 0, 128), pattern(0, 128));
        sim::close_device(bdev);
        EXPECT_BYTES(contents(0, 64, 16), Bytes(8192));
    });
}

TEST(cowthread, failed_read_of_the_disk_gives_the_snap_up) {
    with_running([](Machine &machine) {
        machine.disk.fail_sectors(81, 81, false);
        EXPECT_EQ(write_node(0, 83, 1), 0);
        EXPECT_TRUE(logged_error("cow_chunks(): Failed to read 4096-byte block #10 from /dev/sdb"))
            << whole_log();
        expect_given_up(machine, "cow_chunks");
    });
}

TEST(cowthread, failed_write_or_sync_of_the_data_gives_the_snap_up) {
    for (const sim::Fault kind : {sim::Fault::kWrite, sim::Fault::kFlush}) {
        with_running([kind](Machine &machine) {
            machine.storage.fail_path(data_path(1), kind, -EIO);
            EXPECT_EQ(write_node(0, 83, 1), 0);
            machine.storage.fail_path(data_path(1), kind, 0);
            EXPECT_FALSE(marked(machine, 1, 10));
            if (kind == sim::Fault::kWrite) {
                expect_given_up(machine, "write_cowed_page");
            } else {
                EXPECT_TRUE(logged(1, given_up("write_cowed_page", 1)));
                EXPECT_EQ(snap(1).snap_valid, 0u);
            }
        });
    }
}

TEST(cowthread, failed_write_or_sync_of_the_bitmap_gives_the_snap_up) {
    for (const sim::Fault kind : {sim::Fault::kWrite, sim::Fault::kFlush}) {
        with_running([kind](Machine &machine) {
            machine.storage.fail_path(bmp_path(1), kind, -EIO);
            EXPECT_EQ(write_node(0, 83, 1), 0);
            expect_given_up(machine, "mark_chunk_cowed");
            EXPECT_EQ(snap(1).marking.load(), 0);
        });
    }
}

TEST(cowthread, bitmap_page_without_memory_gives_the_snap_up) {
    Machine machine;
    prepare(machine);
    bool seen = false;
    for (std::uint64_t nth = 1; nth < 30 && !seen; ++nth) {
        boot(machine, [&] {
            make_started_snap();
            os_bdev *bdev = open_node(0);
            sim::fail_nth(sim::Fault::kAlloc, nth);
            sim::write_device(bdev, 80, Bytes(512));
            sim::fail_none();
            seen = logged_error("trak_cowbmp_set_bit(): Memory allocation failed.");
            if (seen) {
                EXPECT_TRUE(logged(1, given_up("mark_chunk_cowed", 1)));
            }
            sim::close_device(bdev);
        });
    }
    EXPECT_TRUE(seen);
}

TEST(cowthread, snap_given_up_takes_the_older_ones_with_it_and_no_newer_one) {
    with_running([](Machine &machine) {
        ASSERT_EQ(add_snap(2), 0);
        ASSERT_EQ(start(2), 0);
        machine.storage.fail_path(data_path(2), sim::Fault::kWrite, -ENOSPC);
        EXPECT_EQ(write_node(0, 0, 8), 0);
        EXPECT_TRUE(logged(1, given_up("write_cowed_page", 2)));
        EXPECT_TRUE(logged(1, given_up("write_cowed_page", 1)));
        EXPECT_EQ(snap(1).snap_valid + snap(2).snap_valid, 0u);
        ASSERT_EQ(add_snap(3), 0);
        ASSERT_EQ(start(3), 0);
        EXPECT_EQ(write_node(0, 0, 8, 9), 0);
        EXPECT_EQ(snap(3).snap_valid, 1u);
        EXPECT_BYTES(contents(3, 0, 8), Bytes(4096, 0x5a));
    });
}

TEST(cowthread, read_of_a_snap_that_was_given_up_meanwhile_fails) {
    with_running([](Machine &machine) {
        os_bdev *bdev = open_node(0);
        int err = 0;
        os_bdev *image = sim::open_device(node_dev(1), OS_FMODE_READ, &err);
        sim::Request *write = stuck_write(machine, bdev, 0);
        sim::Request *read = sim::start_request(image, 0, 0, Bytes(4096));
        ASSERT_EQ(filter(0).cowqueue.cnt.load(), 2);
        machine.storage.fail_path(data_path(1), sim::Fault::kWrite, -ENOSPC);
        machine.disk.hold(false);
        EXPECT_EQ(sim::wait_request(write, nullptr), 0);
        EXPECT_EQ(sim::wait_request(read, nullptr), -EIO);
        sim::close_device(image);
        sim::close_device(bdev);
    });
}

TEST(cowthread, request_of_another_filter_or_of_no_node_is_refused) {
    with_running([](Machine &machine) {
        machine.storage.add_disk("sdc", 8u << 20 | 48u, 1 << 20, 512);
        ASSERT_EQ(add_filter(5, 4096, "/dev/sdc"), 0);
        ASSERT_EQ(start(5), 0);
        os_bdev *other = open_node(5);
        int err = 0;
        os_bdev *disk = sim::open_device(8u << 20 | 48u, OS_FMODE_READ, &err);
        trak_cowqueue &queue = filter(0).cowqueue;
        OwnBio stray(0, 4096, kRead), unknown(0, 4096, kRead);
        os_bio_set_bdev(stray.get(), other);
        os_bio_set_bdev(unknown.get(), disk);
        ASSERT_EQ(trak_cowqueue_append(&queue, 1, stray.get(), OS_GFP_NOIO), 0);
        ASSERT_EQ(trak_cowqueue_append(&queue, 1, unknown.get(), OS_GFP_NOIO), 0);
        sim::wait_until([&] { return queue.cnt.load() == 0; });
        sim::wait_until([&] { return unknown.ends() == 1 && stray.ends() == 1; });
        EXPECT_EQ(stray.error(), -EIO);
        EXPECT_EQ(unknown.error(), -EIO);
        EXPECT_TRUE(
            logged_error("cow_worker(): Request to unknown trak(100, 5) in trak(100, 0) queue"))
            << whole_log();
        EXPECT_TRUE(
            logged_error("cow_worker(): Request to unknown block device in COW request queue"));
        sim::close_device(disk);
        sim::close_device(other);
    });
}

TEST(cowthread, piece_that_can_not_be_read_from_the_disk_fails_the_read) {
    with_running([](Machine &machine) {
        ASSERT_EQ(write_node(0, 0, 8), 0);
        machine.disk.fail_sectors(9, 9, false);
        EXPECT_BYTES(contents(1, 0, 16), Bytes{});
        EXPECT_TRUE(logged_error("read_from_hdd(): Failed to read 4096 bytes starting from sector "
                                 "8 from device (8, 16)") ||
                    whole_log().find("read_from_hdd(): Failed to read ") != std::string::npos)
            << whole_log();
        EXPECT_EQ(snap(1).snap_valid, 1u);
        EXPECT_BYTES(contents(1, 0, 8), pattern(0, 8));
    });
}

TEST(cowthread, piece_that_can_not_be_read_from_the_data_file_fails_the_read) {
    with_running([](Machine &machine) {
        ASSERT_EQ(write_node(0, 0, 8), 0);
        machine.storage.fail_path(data_path(1), sim::Fault::kRead, -EIO);
        EXPECT_BYTES(contents(1, 0, 16), Bytes{});
        machine.storage.fail_path(data_path(1), sim::Fault::kRead, 0);
        EXPECT_BYTES(contents(1, 0, 16), pattern(0, 16));
        machine.storage.write_file(data_path(1), Bytes(100));  // somebody cut it
        EXPECT_BYTES(contents(1, 0, 16), Bytes{});
    });
}

TEST(cowthread, what_one_snap_preserved_is_one_read_where_the_pages_adjoin) {
    with_running([](Machine &) {
        ASSERT_EQ(write_node(0, 0, 64), 0);
        ASSERT_EQ(add_snap(2), 0);
        ASSERT_EQ(start(2), 0);
        ASSERT_EQ(write_node(0, 64, 64), 0);
        std::uint64_t fewest = UINT64_MAX;
        std::uint64_t most = 0;
        for (int i = 0; i < 40; ++i) {  // a program's pages adjoin in half of its requests
            const std::uint64_t before = sim::fault_points(sim::Fault::kRead);
            EXPECT_BYTES(contents(1, 3, 120), pattern(3, 120));
            const std::uint64_t reads = sim::fault_points(sim::Fault::kRead) - before;
            fewest = std::min(fewest, reads);
            most = std::max(most, reads);
        }
        EXPECT_EQ(fewest, 2u);  // of the data file of each snap
        EXPECT_GT(most, 15u);
    });
}

TEST(cowthread, data_file_that_was_removed_serves_on_while_it_is_open) {
    with_running([](Machine &machine) {
        machine.storage.remove(data_path(1));
        ASSERT_EQ(write_node(0, 0, 8), 0);
        EXPECT_BYTES(contents(1, 0, 16), pattern(0, 16));
    });
}

TEST(cowthread, request_whose_clone_has_no_memory_reaches_the_disk_all_the_same) {
    Machine machine;
    prepare(machine);
    bool seen = false;
    for (std::uint64_t nth = 1; nth < 60 && !seen; ++nth) {
        fill_disk(machine);
        boot(machine, [&] {
            make_started_snap();
            os_bdev *bdev = open_node(0);
            sim::Request *write = stuck_write(machine, bdev, 80);
            sim::fail_nth(sim::Fault::kAlloc, nth);
            machine.disk.hold(false);
            EXPECT_EQ(sim::wait_request(write, nullptr), 0);
            sim::fail_none();
            EXPECT_BYTES(machine.disk.read(80 * 512, 4096), Bytes(4096, 0x11));
            seen = seen || logged_error("cow_worker(): Failed to clone BIO");
            sim::close_device(bdev);
            if (snap(1).snap_valid != 0) {
                EXPECT_BYTES(contents(1, 0, 128), pattern(0, 128));
            }
        });
    }
    EXPECT_TRUE(seen);
}

TEST(cowthread, request_without_a_clone_still_waits_for_the_one_that_it_overlaps) {
    int without_clone = 0;
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        Machine machine;
        prepare(machine);
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                make_started_snap();
                os_bdev *bdev = open_node(0);
                ASSERT_EQ(sim::write_device(bdev, 0, Bytes(4096)), 0);
                machine.disk.hold(true);
                sim::Request *first = sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(2048, 1));
                sim::Request *second = sim::start_request(bdev, OS_BIO_WRITE, 2, Bytes(2048, 2));
                sim::fail_random(sim::Fault::kAlloc, 1000);
                sim::sleep_ms(10);
                sim::fail_none();
                machine.disk.hold(false);
                EXPECT_EQ(sim::wait_request(first, nullptr), 0);
                EXPECT_EQ(sim::wait_request(second, nullptr), 0);
                EXPECT_BYTES(machine.disk.read(0, 1024), Bytes(1024, 1));
                EXPECT_BYTES(machine.disk.read(1024, 2048), Bytes(2048, 2));
                without_clone += logged_error("cow_worker(): Failed to clone BIO");
                sim::close_device(bdev);
            },
            1, options);
    }
    EXPECT_GT(without_clone, 0);
}
