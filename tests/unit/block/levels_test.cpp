// tests/unit/block/levels_test.cpp: which messages appear at which debug level
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/bitmap_file.h"
#include "driver/block/kdirtyd.h"
#include "driver/block/trak_aio_26.h"
#include "tests/unit/block/bitmap_image.h"

using namespace driver_world;

namespace {

// The messages of one ordinary life of a node, each with the lowest trak_debug that shows it (errors: 0).
struct Leveled {
    int level;
    const char *text;
};
constexpr Leveled kMessages[] = {
    {2, "trak_block_init(): Initializing block device"},
    {2, "trak_block_init(): trak_blk_major=100"},
    {1, "trak_start_kdirtyd(): Starting kdirtyd"},
    {2, "trak_start_kdirtyd(): kdirtyd has been started successfully: pid="},
    {1, "kdirtyd(): Started."},
    {2, "kdirtyd(): Waiting for dirty requests to come..."},
    {2, "kdirtyd(): Got "},
    {1, "trak_ioctl_add_filter_node(): Adding new node: HDD=/dev/sdb, trak_minor=0, "
        "extent_size=4096, bmap_dir=/bmp"},
    {2, "trak_ioctl_add_filter_node(): Successfully derived HDD major=8, minor=16"},
    {1, "trak_ioctl_add_filter_node(): Attaching trak0 to /dev/sdb"},
    {2, "trak_block_load_bmp(): Loading Differential bitmap of trak(100, 0)"},
    {2, "trak_block_load_bmp(): Loading Incremental bitmap of trak(100, 0)"},
    {2, "trak_aio_init(): Initializing AIO tracker."},
    {3, "trak_ioctl_add_filter_node(): dev_size=1048576, extent_size=4096, block_size=512, "
        "bmp_size=32"},
    {0, "trak_ioctl_add_filter_node(): Found a duplicate trak0 node going to the same HDD device "
        "/dev/sdb"},
    {1, "trak_ioctl_start_node(): Starting trak(100, 0)"},
    {2, "trak_block_start_device(): Starting trak(100, 0)"},
    {3, "trak_block_start_device(): trak(100, 0) has been started successfully"},
    {1, "trak_ioctl_clr_bmp(): Clearing Incremental bitmap of trak(100, 0)"},
    {1, "trak_block_save_dirty_bmps(): Saving dirty incr/diff bitmaps to disk"},
    {2, "trak_block_save_bmp(): Saving Incremental bitmap of trak(100, 0)"},
    {2, "trak_kill_dirty_requests(): Killing all dirty requests for Incremental bitmap of "
        "trak(100, 0)"},
    {2, "trak_block_open(): Opening trak(100, 0)"},
    {3, "trak_block_open(): bdev="},
    {4, "trak_make_request(): minor=0, sector=8, sectors=1, rw=1"},
    {2, "trak_sched_write_dirty_flag(): Appending dirty request for Incremental bitmap of "
        "trak(100, 0)"},
    {2, "trak_block_write_dirty_flag(): Writing dirty flag 1 into Incremental bitmap of "
        "trak(100, 0)"},
    {2, "trak_block_ioctl(): cmd=0x1260 (BLKGETSIZE)"},
    {2, "trak_block_release(): Releasing trak(100, 0)"},
    {1, "trak_block_load_bmps(): Loading incr/diff bitmaps"},
    {1, "trak_ioctl_stop_node(): Stopping trak(100, 0)"},
    {2, "trak_block_stop_device(): Stopping trak(100, 0)"},
    {3, "trak_block_stop_device(): trak(100, 0) has been stopped successfully"},
    {1, "trak_ioctl_del_node(): Removing trak(100, 0)"},
    {1, "trak_block_destroy_device(): Destroying trak(100, 0)"},
    {2, "trak_aio_destroy(): Destroying AIO tracker."},
    {2, "trak_aio_destroy(): Destroying global AIO allocators."},
    {3, "trak_block_destroy_device(): trak(100, 0) has been destroyed successfully"},
    {2, "trak_block_destroy(): Stopping all minor nodes"},
    {2, "trak_block_destroy(): Destroying all minor nodes"},
    {2, "trak_block_destroy(): Unregistering block device driver"},
    {1, "trak_stop_kdirtyd(): Stopping kdirtyd"},
    {2, "trak_stop_kdirtyd(): kdirtyd has been stopped successfully"},
    {1, "kdirtyd(): Terminated."},
};

void live_a_life() {
    ASSERT_EQ(trak_init(), 0);
    make_clean_filter();
    EXPECT_EQ(add_filter(), -EINVAL);
    os_bdev *bdev = open_node(0);
    EXPECT_EQ(sim::write_device(bdev, 8, Bytes(512, 1)), 0);
    EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
    EXPECT_EQ(sim::device_ioctl(bdev, 0x1260, 0), 0);
    sim::close_device(bdev);
    EXPECT_EQ(trak_block_load_bmps(&filter(0)), 0);
    EXPECT_EQ(stop(0), 0);
    EXPECT_EQ(del(0), 0);
    EXPECT_EQ(trak_cleanup(), 0);
}

}  // namespace

TEST(levels, each_message_appears_from_its_own_level_on) {
    for (int debug = 0; debug <= 4; ++debug) {
        Machine machine;
        boot_bare(machine, [&] {
            trak_debug = debug;
            live_a_life();
            for (const Leveled &m : kMessages) {
                std::size_t count = 0;
                for (const std::string &line : sim::log()) {
                    const auto at = line.find(m.text);
                    // "<3>ERROR: ", or "<6>" and a process of at least four digits.
                    count += m.level == 0 ? at == 10 : at != std::string::npos && at >= 9;
                }
                EXPECT_EQ(count > 0, debug >= m.level) << m.text << " at " << debug;
            }
        });
    }
}
