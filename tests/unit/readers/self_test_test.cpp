// tests/unit/readers/self_test_test.cpp: the self-test of the readers and of the data-block map
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/fsreaders/self_test.h"

#include "tests/unit/readers/xfs_world.h"

namespace {

using namespace reader_world;

Ext2 ext2_image() {
    Ext2 fs(1024, 8192 * 2 + 4000);
    scatter(fs.used, 3);
    return fs;
}

struct TestDisk : Machine {
    explicit TestDisk(const Pieces &pieces, std::uint64_t size = 24 << 20) : Machine(size) {
        storage.mkdir("/tmp");
        put(*this, pieces);
    }
};

int test_command(const std::string &path) {
    trak_test_datablock_arg arg{};
    std::memcpy(arg.hdd_name, path.data(), std::min(path.size(), sizeof arg.hdd_name));
    return command(TRAK_TEST_DATABLOCK, arg);
}

void expect_command_error(const std::string &text) {
    EXPECT_TRUE(logged_error("trak_ioctl_test_datablock(): " + text)) << text << "\n"
                                                                      << whole_log();
}

// ---- the command -----------------------------------------------------------------------------

TEST(test_datablock, every_file_system_passes) {
    Reiser reiser(1024, 20000);
    scatter(reiser.used, 4);
    Xfs xfs(512, 8192, 8192 * 3);
    for (std::uint32_t ag = 0; ag < 3; ++ag)
        xfs.free[ag] = {{512, 100}, {1024 + ag, 5000}};
    for (const Pieces &pieces : {ext2_image().pieces(), reiser.pieces(), xfs.pieces()}) {
        TestDisk disk(pieces);
        boot(
            disk,
            [&] {
                EXPECT_EQ(test_command(kDiskPath), 0) << whole_log();
                EXPECT_TRUE(logged(1, "trak_ioctl_test_datablock(): Testing datablocks on "
                                      "/dev/sdb"));
                for (const char *text :
                     {"trak_ioctl_test_datablock(): Successfully derived HDD major=8, minor=16",
                      "trak_blkbmp_test(): Testing datablock bitmap code for hdd(8, 16)",
                      "trak_blkbmp_test_reader(): Testing bitmap reader for hdd(8, 16)",
                      "   Comparing the results...",
                      "trak_blkbmp_test(): Testing trak_blkbmp_export()",
                      "trak_blkbmp_test(): Datablock bitmap code tests completed successfully"})
                    EXPECT_TRUE(logged(2, text)) << text << "\n" << whole_log();
            },
            2);
    }
}

TEST(test_datablock, dump_files_hold_the_maps_of_every_chunk_and_portion_size) {
    const Ext2 fs = ext2_image();
    TestDisk disk(fs.pieces());
    boot(
        disk,
        [&] {
            ASSERT_EQ(test_command(kDiskPath), 0);
            for (const int portion : {3072, 1536, 768, 384, 192}) {
                const std::string name = "/tmp/bmp.1024." + std::to_string(portion);
                EXPECT_TRUE(logged(3, "Testing chunk_size=1024, chunks=24576 (portion_size=" +
                                          std::to_string(portion) + "): " + name))
                    << whole_log();
                const Bytes bits = disk.storage.read_file(name);
                ASSERT_EQ(bits.size(), 3072u);
                for (std::uint32_t b = 0; b < 24576; ++b)
                    ASSERT_EQ(bit(bits, b), b < fs.blocks && fs.used[b]) << b;
            }
            EXPECT_FALSE(disk.storage.exists("/tmp/bmp.1024.96"));
            EXPECT_EQ(disk.storage.read_file("/tmp/bmp.65536.48").size(), 48u);
            EXPECT_FALSE(disk.storage.exists("/tmp/bmp.131072.24"));
        },
        3);
}

TEST(test_datablock, steps_are_told_at_levels_2_and_3) {
    TestDisk disk(ext2_image().pieces());
    boot(
        disk,
        [&] {
            ASSERT_EQ(test_command(kDiskPath), 0);
            EXPECT_TRUE(logged(2, "trak_blkbmp_test(): Reading the entire datablock bitmap with "
                                  "chunk_size=block_size=1024B using the reader directly"));
            EXPECT_TRUE(logged(2, "trak_blkbmp_test(): Reading the entire datablock bitmap with "
                                  "chunk_size=block_size=1024B using blkbmp API"));
            for (std::uint32_t size = 1024; size <= 0x200000; size *= 2)
                EXPECT_TRUE(logged(3, "trak_blkbmp_test(): Testing downsample to extent size " +
                                          std::to_string(size)));
            EXPECT_EQ(sim::count_log("Testing bitmap reading for start chunk="), 12u);
        },
        3);
    boot(
        disk,
        [&] {
            ASSERT_EQ(test_command(kDiskPath), 0);
            EXPECT_EQ(sim::count_log("Testing downsample"), 0u);
            EXPECT_EQ(sim::count_log("Testing chunk_size="), 0u);
        },
        2);
}

TEST(test_datablock, folder_without_room_for_dump_files_is_no_failure) {
    TestDisk disk(ext2_image().pieces());
    disk.storage.remove("/tmp");
    boot(disk, [&] { EXPECT_EQ(test_command(kDiskPath), 0) << whole_log(); });
}

TEST(test_datablock, mounted_disk_is_refused_unread) {
    TestDisk disk(ext2_image().pieces());
    disk.disk.set_mounted(true);
    boot(disk, [&] {
        const std::uint64_t reads = sim::fault_points(sim::Fault::kRead);
        EXPECT_EQ(test_command(kDiskPath), -EBUSY);
        EXPECT_EQ(sim::fault_points(sim::Fault::kRead), reads);
        expect_command_error("Can't test mounted HDD device /dev/sdb");
    });
}

TEST(test_datablock, path_that_is_no_disk_is_refused) {
    TestDisk disk(ext2_image().pieces());
    disk.storage.write_file("/file", Bytes(100));
    disk.storage.write_file("/hidden", Bytes(100));
    disk.storage.hide_inode("/hidden", true);
    disk.storage.chmod_special("/dev/none", OS_S_IFBLK | 0600, 9u << 20 | 5u);
    boot(disk, [&] {
        EXPECT_EQ(test_command(""), -EINVAL);
        expect_command_error("Empty HDD name passed as input.");
        EXPECT_EQ(test_command("/dev/sdx"), -ENOENT);
        expect_command_error("Unable to lookup /dev/sdx: rc=-2");
        EXPECT_EQ(test_command("/hidden"), -EINVAL);
        expect_command_error("Unable to derive major/minor numbers for /hidden");
        EXPECT_EQ(test_command("/file"), -EINVAL);
        expect_command_error("/file is not a block device.");
        EXPECT_EQ(test_command("/tmp"), -EINVAL);
        expect_command_error("/tmp is not a block device.");
        EXPECT_EQ(test_command("/dev/none"), -EIO);
        expect_command_error("Failed to open /dev/none");
        // A name without an end is cut.
        EXPECT_EQ(test_command(std::string(1024, 'x')), -ENOENT);
    });
}

TEST(test_datablock, disk_without_a_known_file_system_is_told) {
    TestDisk disk({});
    boot(disk, [&] {
        EXPECT_EQ(test_command(kDiskPath), -EINVAL);
        EXPECT_TRUE(logged(1, "trak_blkbmp_test(): Cannot recognize file system on hdd(8, 16)."))
            << whole_log();
    });
}

TEST(test_datablock, bitmap_that_cannot_be_read_ends_the_test) {
    const Ext2 fs = ext2_image();
    TestDisk disk(fs.pieces());
    fail_bytes(disk, fs.bitmap_at(1), 512);
    boot(disk, [&] {
        EXPECT_EQ(test_command(kDiskPath), -EIO);
        EXPECT_TRUE(logged_error("Failed to read 24576 bits starting from chunk 0")) << whole_log();
    });
}

TEST(test_datablock, split_extents_of_xfs_are_found_to_be_coarser_than_their_blocks) {
    Xfs fs(512, 4096, 4096);
    fs.free[0] = {{64, 4}, {68, 4}};
    TestDisk disk(fs.pieces(), 4096 * 512);
    boot(disk, [&] {
        EXPECT_EQ(test_command(kDiskPath), -EIO);
        EXPECT_TRUE(logged_error("Oops. Bit 8 of chunk bitmap is set, but all bits in the block "
                                 "bitmap are clear."))
            << whole_log();
    });
}

TEST(test_datablock, test_without_memory_fails_and_keeps_nothing) {
    Xfs fs(4096, 256, 256);
    fs.free[0] = {{100, 50}};
    TestDisk disk(fs.pieces(), 1 << 20);
    unsigned told = 0;
    for (unsigned n = 1;; ++n) {
        ASSERT_LT(n, 2000u);
        bool reached = false;
        int rc = 0;
        boot(disk, [&] {
            const std::uint64_t before = sim::fault_points(sim::Fault::kAlloc);
            sim::fail_nth(sim::Fault::kAlloc, n);
            rc = test_command(kDiskPath);
            reached = sim::fault_points(sim::Fault::kAlloc) - before >= n;
            sim::fail_none();
            told += logged_error("trak_blkbmp_test(): Memory allocation failed.");
            told += logged_error("trak_blkbmp_test_reader(): Memory allocation failed.");
        });
        if (!reached) {
            EXPECT_EQ(rc, 0);
            break;
        }
    }
    EXPECT_EQ(told, 6u);  // two bitmaps of the reader's test, three and the map of the other
}

// ---- a file system that changes under the test ------------------------------------------------

// Runs the test while another task waits for the line, and changes the disk.
void test_with_change(Machine &machine, const char *line, const std::function<void()> &change) {
    bool changed = false;
    sim::Process *process = sim::spawn("changer", [&] {
        sim::wait_until([&] { return sim::count_log(line) > 0; });
        change();
        changed = true;
    });
    (void)machine;
    EXPECT_LT(test_command(kDiskPath), 0);
    sim::join(process);
    EXPECT_TRUE(changed);
}

// The last group is all in use or all free, as its bitmap and its descriptor say.
void set_last_group(Machine &machine, Ext2 fs, bool in_use) {
    for (std::uint32_t b = 8192 * 2 + 1; b < fs.blocks; ++b)
        fs.used[b] = in_use;
    put(machine, fs.pieces());
}

TEST(self_test, map_that_differs_from_the_reader_is_told) {
    const Ext2 fs = ext2_image();
    TestDisk disk(fs.pieces());
    set_last_group(disk, fs, false);
    boot(
        disk,
        [&] {
            test_with_change(disk, "using blkbmp API", [&] { set_last_group(disk, fs, true); });
            EXPECT_TRUE(logged_error("trak_blkbmp_test(): Bit 16385 is misrepresented by blkbmp: "
                                     "1 instead of 0"))
                << whole_log();
        },
        2);
}

TEST(self_test, chunk_that_differs_from_its_blocks_is_told) {
    const Ext2 fs = ext2_image();
    for (const bool in_use : {false, true}) {
        TestDisk disk(fs.pieces());
        Ext2 moved = fs;  // as many blocks in use, all of them elsewhere
        for (std::uint32_t b = 8192 * 2 + 1; b < fs.blocks; ++b)
            moved.used[b] = b % 2 == 0;
        Ext2 other = moved;
        for (std::uint32_t b = 8192 * 2 + 1; b < fs.blocks; ++b)
            other.used[b] = b % 2 != 0;
        if (in_use)
            std::swap(moved, other);
        moved.used[fs.blocks - 1] = other.used[fs.blocks - 1] = true;
        ASSERT_EQ(moved.free_in(2), other.free_in(2));
        put(disk, moved.pieces());
        boot(
            disk,
            [&] {
                test_with_change(disk, "Comparing the results", [&] { put(disk, other.pieces()); });
                EXPECT_TRUE(logged_error(in_use
                                             ? "trak_blkbmp_test(): Bitmap inconsistency for chunk "
                                               "16385: expected 1, got 0"
                                             : "trak_blkbmp_test(): Bitmap inconsistency for chunk "
                                               "16385: expected 0, got 1"))
                    << whole_log();
            },
            2);
    }
}

TEST(self_test, export_that_differs_from_the_reader_is_told) {
    const Ext2 fs = ext2_image();
    TestDisk disk(fs.pieces());
    Ext2 before = fs;
    Ext2 after = fs;
    for (std::uint32_t b = 8192 * 2 + 1; b < fs.blocks; ++b) {
        before.used[b] = b % 2 == 0 || b + 1 >= fs.blocks;
        after.used[b] = b % 2 != 0 || b + 1 >= fs.blocks;
    }
    ASSERT_EQ(before.free_in(2), after.free_in(2));
    put(disk, before.pieces());
    boot(
        disk,
        [&] {
            test_with_change(disk, "Testing trak_blkbmp_export()",
                             [&] { put(disk, after.pieces()); });
            for (const char *text :
                 {"trak_blkbmp_test(): Failed to downsample bitmap for extent of size 1024: bit "
                  "16385 doesn't match.",
                  "  chunk_size=1024, blocks_per_chunk=1, chunks=24576",
                  "  read_func() returned 1, export() returned 0"})
                EXPECT_TRUE(logged_error(text)) << text << "\n" << whole_log();
        },
        2);
}

// ---- the reader's test on readers that are wrong ----------------------------------------------

struct Fake {
    int fail_at_chunk = -1;   // the read that holds it fails
    int wrong_above = 0;      // chunks of a greater size say the contrary
    std::uint8_t blocks = 0;  // what all bytes of the map are
};
Fake fake;

int fake_read(void *, std::uint32_t first, std::uint32_t chunk_size, std::uint8_t *out,
              std::int32_t count) {
    if (fake.fail_at_chunk >= static_cast<int>(first) &&
        fake.fail_at_chunk < static_cast<int>(first) + count)
        return -EIO;
    const bool wrong =
        fake.wrong_above != 0 && chunk_size > static_cast<unsigned>(fake.wrong_above);
    std::memset(out, wrong ? static_cast<std::uint8_t>(~fake.blocks) : fake.blocks,
                (static_cast<std::size_t>(count) + 7) / 8);
    return 0;
}
constexpr trak_fs_reader kFake{nullptr, fake_read, nullptr};

void test_fake(const Fake &is, std::int32_t block_size, int rc, const std::string &error,
               std::uint64_t size = 1 << 20) {
    fake = is;
    TestDisk disk({}, size);
    on_disk(disk, [&](os_bdev *bdev) {
        EXPECT_EQ(trak_blkbmp_test_reader(bdev, nullptr, block_size, &kFake), rc) << whole_log();
        EXPECT_TRUE(error.empty() || logged_error(error)) << whole_log();
    });
}

TEST(self_test_of_a_reader, true_reader_passes) {
    test_fake({-1, 0, 0xff}, 512, 0, "");
    test_fake({-1, 0, 0}, 512, 0, "");
    test_fake({-1, 0, 0}, 0x10000, 0, "");
}

TEST(self_test_of_a_reader, chunk_that_differs_from_its_blocks_is_told) {
    test_fake({-1, 4096, 0xff}, 1024, -EIO,
              "Oops. Bit 0 of chunk bitmap is clear, but some bits in the block bitmap are set.");
    test_fake({-1, 4096, 0}, 1024, -EIO,
              "Oops. Bit 0 of chunk bitmap is set, but all bits in the block bitmap are clear.");
}

TEST(self_test_of_a_reader, read_that_fails_is_told) {
    test_fake({0, 0, 0}, 512, -EIO, "Failed to read 2048 bits starting from chunk 0");
    test_fake({2047, 0, 0}, 512, -EIO, "Failed to read 2048 bits starting from chunk 0");
}

TEST(self_test_of_a_reader, block_sizes_that_are_no_power_of_two_are_told) {
    for (const std::int32_t size : {-4096, -1, 0, 1, 3, 1000})
        test_fake({}, size, -EIO,
                  "trak_blkbmp_test_reader(): Not pow2 FS block size returned from FS reader.");
}

TEST(self_test_of_a_reader, blocks_above_64_kib_are_not_tested) {
    test_fake({0, 0, 0}, 0x20000, 0, "");
}

TEST(self_test_of_a_reader, disk_of_more_blocks_than_can_be_counted_is_told) {
    test_fake({}, 2, -EFBIG,
              "trak_blkbmp_test_reader(): hdd(8, 16) has too many blocks to be tested.",
              std::uint64_t{1} << 33);
}

TEST(self_test_of_a_reader, disk_of_a_negative_size_is_told) {
    const std::uint64_t size = std::uint64_t{1} << 63;
    test_fake({}, 512, -EINVAL, "trak_blkbmp_test_reader(): Failed to get size of hdd(8, 16)",
              size);
    TestDisk disk({}, size);
    on_disk(disk, [](os_bdev *bdev) {
        EXPECT_EQ(trak_blkbmp_test(bdev), -EINVAL);
        EXPECT_TRUE(logged_error("trak_blkbmp_test(): Failed to get size of hdd(8, 16)"));
    });
}

}  // namespace
