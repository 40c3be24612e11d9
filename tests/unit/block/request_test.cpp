// tests/unit/block/request_test.cpp: the path of requests through filter nodes, and what it marks
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/request.h"

#include "driver/block/kdirtyd.h"
#include "driver/utils/bits.h"
#include "os/sim/seeds.h"
#include "os/task.h"
#include "tests/unit/block/bitmap_image.h"

using namespace driver_world;

namespace {

// The extents that are marked in the incremental bitmap; the differential one must agree.
std::vector<std::uint64_t> marked() {
    std::vector<std::uint64_t> extents;
    const Bytes bits = incr_bmp(0);
    EXPECT_EQ(diff_bmp(0), bits);
    for (std::uint64_t n = 0; n < bits.size() * 8; ++n) {
        if (bit(bits, n))
            extents.push_back(n);
    }
    return extents;
}

using Extents = std::vector<std::uint64_t>;

// A filter with clean bitmaps, open.
struct OpenFilter {
    os_bdev *bdev;
    explicit OpenFilter(std::uint32_t extent_size = 4096) {
        make_clean_filter(extent_size);
        bdev = open_node(0);
        EXPECT_NE(bdev, nullptr);
    }
    ~OpenFilter() { sim::close_device(bdev); }
    int submit(std::uint32_t rw, std::uint64_t sector, std::uint64_t sectors) {
        Bytes data(sectors * OS_SECTOR_SIZE, 0x42);
        return sim::submit_device(bdev, rw, sector, data);
    }
    int write(std::uint64_t sector, std::uint64_t sectors) {
        return submit(OS_BIO_WRITE, sector, sectors);
    }
};

}  // namespace

TEST(request, one_sector_marks_one_extent_and_schedules_both_flags_in_order) {
    Machine machine;
    boot(
        machine,
        [&] {
            OpenFilter f;
            EXPECT_EQ(f.write(0, 1), 0);
            EXPECT_EQ(marked(), Extents{0});
            EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
            EXPECT_EQ(filter(0).diff_bmp_dirty, 1u);
            const std::string log = whole_log();
            const auto incr = log.find("trak_sched_write_dirty_flag(): Appending dirty request for "
                                       "Incremental bitmap of trak(100, 0)");
            const auto diff = log.find("trak_sched_write_dirty_flag(): Appending dirty request for "
                                       "Differential bitmap of trak(100, 0)");
            EXPECT_NE(incr, std::string::npos);
            EXPECT_NE(diff, std::string::npos);
            EXPECT_LT(incr, diff);
        },
        2);
}

TEST(request, writes_mark_each_extent_that_they_touch) {
    Machine machine;
    boot(machine, [&] {
        OpenFilter f;
        EXPECT_EQ(f.write(4, 16), 0);
        EXPECT_EQ(marked(), (Extents{0, 1, 2}));
        EXPECT_EQ(f.write(80, 8), 0);
        EXPECT_EQ(marked(), (Extents{0, 1, 2, 10}));
        EXPECT_EQ(f.write(7, 1), 0);
        EXPECT_EQ(f.write(103, 2), 0);
        EXPECT_EQ(marked(), (Extents{0, 1, 2, 10, 12, 13}));
        EXPECT_EQ(f.write(2047, 1), 0);
        EXPECT_EQ(marked().back(), 255u);
    });
}

TEST(request, large_extents_are_marked_by_their_own_size) {
    Machine machine;
    boot(machine, [&] {
        OpenFilter f(65536);
        EXPECT_EQ(f.write(127, 2), 0);
        EXPECT_EQ(marked(), (Extents{0, 1}));
        EXPECT_EQ(f.write(1920, 128), 0);
        EXPECT_EQ(marked(), (Extents{0, 1, 15}));
    });
}

TEST(request, second_write_to_a_marked_extent_schedules_nothing) {
    Machine machine;
    boot(
        machine,
        [&] {
            OpenFilter f;
            EXPECT_EQ(f.write(0, 1), 0);
            sim::clear_log();
            EXPECT_EQ(f.write(0, 1), 0);
            EXPECT_EQ(f.write(8, 1), 0);  // a new extent of a bitmap that is dirty already
            EXPECT_EQ(sim::count_log("Appending dirty request"), 0u);
            EXPECT_EQ(marked(), (Extents{0, 1}));
        },
        2);
}

TEST(request, each_bitmap_has_a_flag_of_its_own) {
    Machine machine;
    boot(
        machine,
        [&] {
            OpenFilter f;
            EXPECT_EQ(f.write(0, 1), 0);
            ASSERT_EQ(bmp_command(TRAK_SAVE_BMP, 0, TRAK_BMP_DIFF), 0);
            sim::clear_log();
            EXPECT_EQ(f.write(0, 1), 0);  // marked in both
            EXPECT_EQ(sim::count_log("Appending dirty request"), 0u);
            EXPECT_EQ(f.write(8, 1), 0);
            EXPECT_EQ(sim::count_log("Appending dirty request for Differential"), 1u);
            EXPECT_EQ(sim::count_log("Appending dirty request for Incremental"), 0u);
        },
        2);
}

TEST(request, reads_mark_nothing_but_count) {
    Machine machine;
    machine.disk.write(4096, Bytes(512, 0xd1));
    boot(machine, [&] {
        OpenFilter f;
        filter(0).write_cnt.store(0);
        Bytes data(512);
        EXPECT_EQ(sim::read_device(f.bdev, 8, data), 0);
        EXPECT_EQ(data, Bytes(512, 0xd1));
        EXPECT_EQ(marked(), Extents{});
        EXPECT_EQ(filter(0).write_cnt.load(), 1);
        EXPECT_EQ(f.write(0, 1), 0);
        EXPECT_EQ(filter(0).write_cnt.load(), 2);
    });
}

TEST(request, requests_without_data_mark_nothing) {
    Machine machine;
    boot(machine, [&] {
        OpenFilter f;
        EXPECT_EQ(f.submit(OS_BIO_WRITE | OS_BIO_FLUSH, 0, 0), 0);
        EXPECT_EQ(marked(), Extents{});
        EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
        EXPECT_GE(machine.disk.flush_count(), 1u);
    });
}

TEST(request, discards_and_zeroes_mark_as_writes_do) {
    Machine machine;
    boot(machine, [&] {
        OpenFilter f;
        EXPECT_EQ(f.submit(OS_BIO_WRITE | OS_BIO_DISCARD, 16, 8), 0);
        EXPECT_EQ(marked(), Extents{2});
        EXPECT_EQ(f.submit(OS_BIO_WRITE | OS_BIO_ZEROES, 39, 2), 0);
        EXPECT_EQ(marked(), (Extents{2, 4, 5}));
    });
}

TEST(request, data_and_errors_of_the_disk_pass_through) {
    Machine machine;
    boot(machine, [&] {
        OpenFilter f;
        EXPECT_EQ(f.write(16, 8), 0);
        EXPECT_EQ(machine.disk.read(16 * 512, 4096), Bytes(4096, 0x42));
        machine.disk.fail_sectors(0, 7, true);
        EXPECT_EQ(f.write(0, 8), -EIO);
        EXPECT_EQ(marked(), (Extents{0, 2}));  // it may have changed
        machine.disk.fail_sectors(0, 7, false);
        Bytes data(512);
        EXPECT_EQ(sim::read_device(f.bdev, 0, data), -EIO);
        machine.disk.heal();
        EXPECT_EQ(sim::read_device(f.bdev, 0, data), 0);
    });
}

TEST(request, stopped_nodes_refuse_requests) {
    Machine machine;
    boot(machine, [&] {
        OpenFilter f;
        trak_write_once(node(0)->started, 0u);
        EXPECT_EQ(f.write(0, 1), -EIO);
        EXPECT_TRUE(logged_error("trak_make_request(): I/O request for trak(100, 0), which is in "
                                 "STOPPED state."));
        EXPECT_EQ(marked(), Extents{});
        trak_write_once(node(0)->started, 1u);
    });
}

TEST(request, requests_to_an_unknown_minor_are_refused) {
    Machine machine;
    boot(machine, [&] {
        OpenFilter f;
        trak_device *dev = node(0);
        trak_blkdev_arr[0] = nullptr;
        EXPECT_EQ(f.write(0, 1), -EINVAL);
        EXPECT_TRUE(
            logged_error("trak_make_request(): Nothing is known about TRAK device with minor=0"));
        trak_blkdev_arr[0] = dev;
    });
}

TEST(request, every_request_is_traced_at_level_four) {
    Machine machine;
    boot(
        machine,
        [&] {
            OpenFilter f;
            EXPECT_EQ(f.write(12, 3), 0);
            EXPECT_TRUE(logged(4, "trak_make_request(): minor=0, sector=12, sectors=3, rw=1"));
            Bytes data(512);
            EXPECT_EQ(sim::read_device(f.bdev, 9, data), 0);
            EXPECT_TRUE(logged(4, "trak_make_request(): minor=0, sector=9, sectors=1, rw=0"));
        },
        4);
}

TEST(request, no_allocation_and_no_copy_lie_in_the_path_without_snaps) {
    Machine machine;
    boot(machine, [&] {
        OpenFilter f;
        EXPECT_EQ(f.write(0, 8), 0);
        EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
        const std::uint64_t before = sim::fault_points(sim::Fault::kAlloc);
        EXPECT_EQ(f.write(64, 64), 0);
        EXPECT_EQ(sim::fault_points(sim::Fault::kAlloc), before);
    });
}

TEST(request, the_last_extent_of_an_uneven_disk_is_marked_and_nothing_beyond) {
    Machine machine(4096 * 3 + 512);
    boot(machine, [&] {
        OpenFilter f;
        EXPECT_EQ(filter(0).extent_cnt, 4u);
        EXPECT_EQ(f.write(24, 1), 0);
        EXPECT_EQ(marked(), Extents{3});
        EXPECT_EQ(f.write(0, 25), 0);
        EXPECT_EQ(marked(), (Extents{0, 1, 2, 3}));
    });
}

// A bio that reaches the driver although it lies beyond the end (the platform ends those itself): what
// exists of it is marked, and no bit outside.
TEST(request, requests_beyond_the_end_mark_inside_the_bitmap_only) {
    Machine machine(4096 * 12);
    boot(machine, [&] {
        OpenFilter f;
        for (const std::uint64_t sector : {std::uint64_t{88}, std::uint64_t{96},
                                           std::uint64_t{1} << 40, (std::uint64_t{1} << 55) - 8}) {
            os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 4);
            os_page *page = os_alloc_page(OS_GFP_KERNEL);
            for (int i = 0; i < 2; ++i)
                ASSERT_TRUE(os_bio_add_page(bio, page, 4096, 0));
            bool ended = false;
            os_bio_set_private(bio, &ended);
            os_bio_set_end_io(
                bio, [](os_bio *b, int) { *static_cast<bool *>(os_bio_private(b)) = true; });
            os_bio_set_rw(bio, OS_BIO_WRITE);
            os_bio_set_sector(bio, sector);
            os_bio_set_bdev(bio, f.bdev);
            EXPECT_EQ(trak_make_request(os_bdev_queue(f.bdev), bio), 0);
            sim::wait_until([&] { return ended; });
            os_bio_put(bio);
            os_free_page(page);
        }
        EXPECT_EQ(marked(), Extents{11});
        EXPECT_EQ(incr_bmp(0)[1], 0x08);
    });
}

TEST(request, extent_numbers_beyond_31_bits_of_sectors_are_marked) {
    Machine machine(std::uint64_t{4} << 40);
    boot(machine, [&] {
        OpenFilter f(65536);
        EXPECT_EQ(filter(0).extent_cnt, 1u << 26);
        const std::uint64_t sector = (std::uint64_t{3} << 40) / 512;
        EXPECT_EQ(f.write(sector, 1), 0);
        EXPECT_TRUE(bit(incr_bmp(0), sector >> 7));
        EXPECT_TRUE(trak_bits_all_clear(filter(0).incr_bmp, sector >> 7));
    });
}

TEST(request, concurrent_writers_lose_no_mark) {
    sim::for_each_seed(40, [](std::uint64_t seed) {
        Machine machine;
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                OpenFilter f;
                Bytes model(32, 0);
                std::vector<sim::Process *> tasks;
                for (int t = 0; t < 3; ++t) {
                    tasks.push_back(sim::spawn("writer", [&] {
                        for (int i = 0; i < 4; ++i) {
                            const std::uint64_t sector = sim::random(2000);
                            const std::uint64_t sectors = 1 + sim::random(40);
                            EXPECT_EQ(f.write(sector, sectors), 0);
                            for (std::uint64_t e = sector / 8; e <= (sector + sectors - 1) / 8; ++e)
                                model[e / 8] |= static_cast<std::uint8_t>(1 << (e % 8));
                        }
                    }));
                }
                for (sim::Process *task : tasks)
                    sim::join(task);
                EXPECT_EQ(incr_bmp(0), model);
                EXPECT_EQ(diff_bmp(0), model);
            },
            1, options);
    });
}
