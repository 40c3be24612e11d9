// tests/unit/snap/routing_test.cpp: which requests go to the disk and which to kcowd
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/snap_world.h"

using namespace snap_world;

namespace {

void with_running(const std::function<void(Machine &)> &fn, std::uint32_t chunk_size, int debug) {
    Machine machine;
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

void with_routed(const std::function<void(Machine &)> &fn) {
    with_running(fn, 4096, 3);
}

// Requests that were queued so far.
std::size_t appended() {
    return count_messages(3, "trak_cowqueue_append(): Appending new request...");
}

os_bdev *open_image(std::uint32_t minor = 1) {
    int err = 0;
    return sim::open_device(node_dev(minor), OS_FMODE_READ, &err);
}

// Gives snap 1 a data-block bitmap in which these chunks hold no data.
void mark_empty(std::uint32_t chunks, const std::vector<std::uint32_t> &empty) {
    trak_blkbmp &bmp = snap(1).blkbmp;
    Bytes bits(((chunks + 7) / 8 + 3) & ~3u, 0xff);
    for (const std::uint32_t c : empty)
        bits[c / 8] = static_cast<std::uint8_t>(bits[c / 8] & ~(1u << (c % 8)));
    bmp.frags = static_cast<sa *>(os_kzalloc(sizeof(sa), OS_GFP_KERNEL));
    bmp.frag_cnt = 1;
    bmp.chunk_cnt = chunks;
    ASSERT_GT(create_sa(bmp.frags, 1, static_cast<int>(bits.size()), bits.data(), 0), 0);
    bmp.valid = 1;
}

}  // namespace

TEST(routing, write_to_a_snap_is_refused) {
    with_routed([](Machine &) {
        os_bdev *bdev = open_image();
        Bytes data(512);
        EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE, 0, data), -EROFS);
        EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | OS_BIO_DISCARD, 0, data), -EROFS);
        EXPECT_EQ(count_messages(255, "trak_make_request(): Write request to snap trak(100, 1)"),
                  2u);
        sim::close_device(bdev);
    });
}

TEST(routing, unattached_snap_is_refused) {
    with_routed([](Machine &) {
        os_bdev *bdev = open_image();
        trak_device *parent = snap(1).filter;
        Bytes data(512);
        for (trak_device *wrong : {static_cast<trak_device *>(nullptr), node(1)}) {
            snap(1).filter = wrong;
            EXPECT_EQ(sim::read_device(bdev, 0, data), -EINVAL);
        }
        snap(1).filter = parent;
        EXPECT_EQ(count_messages(
                      255, "trak_make_request(): Request for unattached snap device trak(100, 1)"),
                  2u);
        sim::close_device(bdev);
    });
}

TEST(routing, invalid_or_defunct_snap_is_refused) {
    with_routed([](Machine &) {
        os_bdev *bdev = open_image();
        Bytes data(512);
        snap(1).snap_valid = 0;
        EXPECT_EQ(sim::read_device(bdev, 0, data), -EIO);
        snap(1).snap_valid = 1;
        snap(1).stop_pending = 1;
        EXPECT_EQ(sim::read_device(bdev, 0, data), -EIO);
        snap(1).stop_pending = 0;
        EXPECT_EQ(sim::read_device(bdev, 0, data), 0);
        EXPECT_EQ(count_messages(255, "trak_make_request(): I/O request for trak(100, 1), which is "
                                      "in STOP_PENDING state or INVALID."),
                  2u);
        sim::close_device(bdev);
    });
}

TEST(routing, read_of_what_nobody_preserved_goes_straight_to_the_disk) {
    with_routed([](Machine &) {
        ASSERT_EQ(write_node(0, 0, 8), 0);
        const std::size_t before = appended();
        EXPECT_BYTES(contents(1, 8, 100), pattern(8, 100));
        EXPECT_EQ(appended(), before);
        EXPECT_BYTES(contents(1, 7, 1), pattern(7, 1));  // this one is preserved
        EXPECT_EQ(appended(), before + 1);
    });
}

TEST(routing, read_across_chunks_of_every_kind_is_put_together) {
    with_running(
        [](Machine &) {
            ASSERT_EQ(add_snap(2, 8192), 0);
            ASSERT_EQ(write_node(0, 0, 1), 0);  // chunk 0 in snap 1
            ASSERT_EQ(start(2), 0);
            ASSERT_EQ(write_node(0, 40, 1), 0);  // chunk 2 in snap 2
            ASSERT_EQ(write_node(0, 65, 1), 0);  // chunk 4
            for (std::uint64_t sector = 0; sector < 90; sector += 7)
                EXPECT_BYTES(contents(1, sector, 90 - sector), pattern(sector, 90 - sector));
        },
        8192, 1);
}

TEST(routing, write_to_preserved_chunks_is_not_queued) {
    with_routed([](Machine &) {
        ASSERT_EQ(write_node(0, 0, 16), 0);
        EXPECT_EQ(appended(), 1u);
        EXPECT_EQ(write_node(0, 3, 12), 0);
        EXPECT_EQ(appended(), 1u);
        EXPECT_EQ(write_node(0, 15, 2), 0);  // the third chunk is not preserved
        EXPECT_EQ(appended(), 2u);
    });
}

TEST(routing, bit_of_an_older_snap_does_not_count_for_the_newest) {
    with_routed([](Machine &) {
        ASSERT_EQ(add_snap(2), 0);
        ASSERT_EQ(write_node(0, 0, 8, 1), 0);
        ASSERT_EQ(start(2), 0);
        ASSERT_EQ(write_node(0, 0, 8, 2), 0);
        EXPECT_EQ(appended(), 2u);
        EXPECT_BYTES(contents(1, 0, 8), pattern(0, 8));
        EXPECT_BYTES(contents(2, 0, 8), Bytes(4096, 1));
    });
}

TEST(routing, write_to_chunks_without_data_is_not_queued) {
    with_routed([](Machine &machine) {
        mark_empty(256, {4, 5, 7});
        EXPECT_EQ(write_node(0, 32, 16), 0);
        EXPECT_EQ(appended(), 0u);
        EXPECT_EQ(write_node(0, 40, 16), 0);  // chunk 6 holds data
        EXPECT_EQ(appended(), 1u);
        EXPECT_TRUE(marked(machine, 1, 5));
        EXPECT_TRUE(marked(machine, 1, 6));
        EXPECT_FALSE(marked(machine, 1, 4));
    });
}

TEST(routing, chunk_without_data_in_the_newest_snap_is_asked_of_the_older_ones) {
    with_routed([](Machine &machine) {
        mark_empty(256, {4});
        ASSERT_EQ(add_snap(2), 0);
        ASSERT_EQ(start(2), 0);
        std::swap(snap(1).blkbmp, snap(2).blkbmp);  // snap 2 says no data, snap 1 does not know
        EXPECT_EQ(write_node(0, 32, 8), 0);
        EXPECT_EQ(appended(), 1u);
        EXPECT_TRUE(marked(machine, 2, 4));
        EXPECT_BYTES(contents(1, 32, 8), pattern(32, 8));
    });
}

TEST(routing, invalid_newest_snap_ends_the_walk) {
    with_routed([](Machine &machine) {
        machine.storage.fail_path(data_path(1), sim::Fault::kWrite, -EIO);
        ASSERT_EQ(write_node(0, 0, 8), 0);
        EXPECT_EQ(appended(), 1u);
        EXPECT_EQ(write_node(0, 64, 8), 0);
        EXPECT_EQ(appended(), 1u);
    });
}

TEST(routing, request_without_data_goes_to_the_disk) {
    with_routed([](Machine &machine) {
        const std::uint64_t flushes = machine.disk.flush_count();
        os_bdev *bdev = open_node(0);
        EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, {}), 0);
        EXPECT_EQ(machine.disk.flush_count(), flushes + 1);
        sim::close_device(bdev);
        os_bdev *image = open_image();
        EXPECT_EQ(sim::submit_device(image, OS_BIO_FLUSH, 0, {}), 0);
        EXPECT_EQ(machine.disk.flush_count(), flushes + 2);
        sim::close_device(image);
        EXPECT_EQ(appended(), 0u);
    });
}

TEST(routing, write_that_overlaps_a_queued_read_of_the_snap_waits_behind_it) {
    with_routed([](Machine &machine) {
        ASSERT_EQ(write_node(0, 64, 8), 0);  // chunk 8 is preserved
        os_bdev *bdev = open_node(0);
        os_bdev *image = open_image();
        machine.disk.hold(true);
        sim::Request *head = sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(4096));
        sim::sleep_ms(5);
        sim::Request *read = sim::start_request(image, 0, 64, Bytes(4096));
        ASSERT_EQ(filter(0).cowqueue.cnt.load(), 2);
        sim::Request *write = sim::start_request(bdev, OS_BIO_WRITE, 66, Bytes(512, 0x77));
        EXPECT_EQ(filter(0).cowqueue.cnt.load(), 3);
        machine.disk.hold(false);
        Bytes got;
        EXPECT_EQ(sim::wait_request(read, &got), 0);
        EXPECT_BYTES(got, pattern(64, 8));
        EXPECT_EQ(sim::wait_request(write, nullptr), 0);
        EXPECT_EQ(sim::wait_request(head, nullptr), 0);
        sim::close_device(image);
        sim::close_device(bdev);
    });
}

TEST(routing, request_that_overlaps_one_on_its_way_to_the_disk_is_queued) {
    with_routed([](Machine &machine) {
        ASSERT_EQ(write_node(0, 0, 8), 0);
        const std::size_t before = appended();
        os_bdev *bdev = open_node(0);
        machine.disk.hold(true);
        sim::Request *first = sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(2048, 1));
        EXPECT_EQ(appended(), before);
        sim::Request *second = sim::start_request(bdev, OS_BIO_WRITE, 2, Bytes(2048, 2));
        EXPECT_EQ(appended(), before + 1);
        sim::Request *read = sim::start_request(bdev, 0, 0, Bytes(512));
        EXPECT_EQ(appended(), before + 2);
        sim::Request *beside = sim::start_request(bdev, OS_BIO_WRITE, 7, Bytes(512, 3));
        EXPECT_EQ(appended(), before + 2);
        machine.disk.hold(false);
        Bytes got;
        EXPECT_EQ(sim::wait_request(first, nullptr), 0);
        EXPECT_EQ(sim::wait_request(second, nullptr), 0);
        EXPECT_EQ(sim::wait_request(read, &got), 0);
        EXPECT_EQ(sim::wait_request(beside, nullptr), 0);
        EXPECT_BYTES(got, Bytes(512, 1));
        EXPECT_BYTES(contents(0, 2, 4), Bytes(2048, 2));
        sim::close_device(bdev);
    });
}

TEST(routing, read_of_the_snap_that_overlaps_a_queued_write_is_queued) {
    with_routed([](Machine &machine) {
        os_bdev *bdev = open_node(0);
        os_bdev *image = open_image();
        machine.disk.hold(true);
        sim::Request *write = sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(4096, 0x77));
        sim::sleep_ms(5);
        const std::size_t before = appended();
        sim::Request *read = sim::start_request(image, 0, 4, Bytes(512));
        EXPECT_EQ(appended(), before + 1);
        machine.disk.hold(false);
        Bytes got;
        EXPECT_EQ(sim::wait_request(read, &got), 0);
        EXPECT_BYTES(got, pattern(4, 1));
        EXPECT_EQ(sim::wait_request(write, nullptr), 0);
        sim::close_device(image);
        sim::close_device(bdev);
    });
}

TEST(routing, write_by_a_bit_that_is_not_durable_yet_waits) {
    with_running(
        [](Machine &machine) {
            os_bdev *bdev = open_node(0);
            machine.disk.hold(true);
            // kcowd is busy with chunk 5; the write to chunk 0 came too late for its group.
            sim::Request *head = sim::start_request(bdev, OS_BIO_WRITE, 640, Bytes(512, 1));
            sim::sleep_ms(5);
            sim::Request *first = sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(512, 1));
            // As kcowd leaves it between the bit and the sync of its file.
            snap(1).marking.store(1);
            ASSERT_EQ(trak_cowbmp_set_bit(&snap(1).cowbmp, 0, OS_GFP_KERNEL, nullptr), 0);
            ASSERT_EQ(trak_cowbmp_set_bit(&snap(1).cowbmp, 1, OS_GFP_KERNEL, nullptr), 0);
            const std::size_t before = appended();
            sim::Request *same = sim::start_request(bdev, OS_BIO_WRITE, 100, Bytes(512, 2));
            EXPECT_EQ(appended(), before + 1);
            // No queued write touches chunk 1: its bit is an old one.
            sim::Request *other = sim::start_request(bdev, OS_BIO_WRITE, 128, Bytes(512, 3));
            EXPECT_EQ(appended(), before + 1);
            snap(1).marking.store(0);
            sim::Request *later = sim::start_request(bdev, OS_BIO_WRITE, 90, Bytes(512, 4));
            EXPECT_EQ(appended(), before + 1);
            machine.disk.hold(false);
            for (sim::Request *request : {head, first, same, other, later})
                EXPECT_EQ(sim::wait_request(request, nullptr), 0);
            sim::close_device(bdev);
        },
        65536, 3);
}

TEST(routing, request_that_can_not_be_queued_ends_without_memory) {
    Machine machine;
    prepare(machine);
    int refused = 0;
    for (std::uint64_t nth = 1; nth < 20; ++nth) {
        boot(machine, [&] {
            make_started_snap();
            os_bdev *bdev = open_node(0);
            sim::fail_nth(sim::Fault::kAlloc, nth);
            const int rc = sim::write_device(bdev, 80, Bytes(512));
            sim::fail_none();
            EXPECT_TRUE(rc == 0 || rc == -ENOMEM) << rc;
            if (rc == -ENOMEM) {
                EXPECT_TRUE(logged_error("trak_cowqueue_append(): Memory allocation failed"));
                ++refused;
            }
            sim::close_device(bdev);
        });
    }
    EXPECT_GE(refused, 2);
}

TEST(routing, without_memory_and_without_a_thread_the_request_goes_to_the_disk) {
    Machine machine;
    prepare(machine);
    boot(machine, [&] {
        make_snap();
        os_bdev *bdev = open_node(0);
        for (std::uint64_t nth = 1; nth <= 3; ++nth) {
            sim::fail_nth(sim::Fault::kAlloc, nth);
            EXPECT_EQ(sim::write_device(bdev, 80, Bytes(512, static_cast<std::uint8_t>(nth))), 0);
            sim::fail_none();
            EXPECT_EQ(machine.disk.read(80 * 512, 1).at(0), nth);
        }
        EXPECT_EQ(filter(0).cowqueue.cnt.load(), 0);
        sim::close_device(bdev);
    });
}
