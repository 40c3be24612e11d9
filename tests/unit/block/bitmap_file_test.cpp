// tests/unit/block/bitmap_file_test.cpp: change bitmaps in their files: format, save, load, damage
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/bitmap_file.h"

#include "driver/block/kdirtyd.h"
#include "os/sim/seeds.h"
#include "tests/unit/block/bitmap_image.h"

using namespace driver_world;

namespace {

constexpr std::size_t kBmpSize = 32;  // 1 MiB in extents of 4 KiB

int load_incr() {
    return bmp_command(TRAK_LOAD_BMP, 0, TRAK_BMP_INCR);
}
int save_incr() {
    return bmp_command(TRAK_SAVE_BMP, 0, TRAK_BMP_INCR);
}

// What counts after a load that found nothing to trust.
void expect_everything_changed() {
    EXPECT_EQ(incr_bmp(0), all_ones(incr_bmp(0).size()));
    EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
}

// Loads the incremental bitmap from these bytes, starting from one that is all clear.
int load_image(Machine &machine, const Bytes &image) {
    EXPECT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_INCR), 0);
    machine.storage.write_file(kIncrFile, image);
    sim::clear_log();
    return load_incr();
}

Bytes some_bits() {
    Bytes bits(kBmpSize, 0);
    bits[0] = 0x81;
    bits[7] = 0x10;
    bits[31] = 0x80;
    return bits;
}

void wait_for_no_requests() {
    EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
}

}  // namespace

TEST(bitmap_file, crc_starts_at_all_ones_and_is_not_complemented) {
    std::uint32_t crc = 0xffffffff;
    trak_crc32("123456789", 9, &crc);
    EXPECT_EQ(crc, ~0xcbf43926u);
    std::uint32_t in_parts = 0xffffffff;
    trak_crc32("1234", 4, &in_parts);
    trak_crc32("56789", 5, &in_parts);
    EXPECT_EQ(in_parts, crc);
    trak_crc32("x", 0, &crc);
    trak_crc32("x", -1, &crc);
    EXPECT_EQ(crc, ~0xcbf43926u);
}

TEST(bitmap_file, types_have_names) {
    EXPECT_STREQ(trak_bmp_type_name(1), "Incremental");
    EXPECT_STREQ(trak_bmp_type_name(0), "Differential");
    EXPECT_STREQ(trak_bmp_type_name(2), "Unknown");
    EXPECT_STREQ(trak_bmp_type_name(0xffffffff), "Unknown");
}

TEST(bitmap_file, saving_one_byte_writes_seventeen) {
    Machine machine(4096);
    boot(machine, [&] {
        make_clean_filter();
        EXPECT_EQ(machine.storage.read_file(kIncrFile).size(), 17u);
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image({0}));
        ASSERT_EQ(write_node(0, 0, 1), 0);
        EXPECT_EQ(machine.storage.read_file(kDiffFile), bitmap_image({1}));
    });
}

TEST(bitmap_file, save_writes_the_stated_layout_and_load_brings_it_back) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        Bytes bits = some_bits();
        ASSERT_EQ(bmp_data_command(TRAK_SET_BMP, 0, TRAK_BMP_INCR, bits), 0);
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(bits));
        EXPECT_EQ(machine.storage.read_file_durable(kIncrFile), bitmap_image(bits));
        EXPECT_EQ(machine.storage.read_file(kDiffFile), bitmap_image(Bytes(kBmpSize, 0)));
        EXPECT_EQ(load_image(machine, bitmap_image(bits)), 0);
        EXPECT_EQ(incr_bmp(0), bits);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
        EXPECT_FALSE(whole_log().find("ERROR") != std::string::npos);
    });
}

TEST(bitmap_file, complemented_checksum_is_invalid) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        Bytes image = bitmap_image(some_bits());
        for (int i = 12; i < 16; ++i)
            image[i] = static_cast<std::uint8_t>(~image[i]);
        EXPECT_EQ(load_image(machine, image), 0);
        EXPECT_TRUE(
            logged_error("trak_block_load_bmp(): File /bmp/trak0.incr has invalid checksum. "
                         "Ignoring file contents."));
        expect_everything_changed();
    });
}

TEST(bitmap_file, dirty_byte_set_yields_all_ones) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        EXPECT_EQ(load_image(machine, dirty_image()), 0);
        EXPECT_TRUE(logged_error(
            "trak_block_load_bmp(): File /bmp/trak0.incr is dirty. Ignoring file contents."));
        expect_everything_changed();
    });
}

TEST(bitmap_file, wrong_magic_is_an_io_error_and_all_ones) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        Bytes image = bitmap_image(some_bits());
        image[6] = 'Q';
        EXPECT_EQ(load_image(machine, image), -EIO);
        EXPECT_TRUE(logged_error(
            "trak_block_load_bmp(): File /bmp/trak0.incr is corrupt: Invalid prefix."));
        expect_everything_changed();
    });
}

TEST(bitmap_file, missing_file_is_an_io_error_and_all_ones) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        machine.storage.remove(kIncrFile);
        EXPECT_EQ(load_incr(), -EIO);
        expect_everything_changed();
    });
}

TEST(bitmap_file, wrong_sizes_yield_all_ones) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        for (const std::uint32_t size : {0u, 1u, 31u, 33u, 0x80000020u, 0xffffffffu}) {
            Bytes image = bitmap_image(some_bits());
            for (int i = 0; i < 4; ++i)
                image[8 + i] = static_cast<std::uint8_t>(size >> (8 * i));
            EXPECT_EQ(load_image(machine, image), 0);
            EXPECT_TRUE(logged_error("trak_block_load_bmp(): File /bmp/trak0.incr contains bitmap "
                                     "of invalid size. Ignoring file contents."));
            expect_everything_changed();
        }
        // Whole and sound, but another disk's.
        EXPECT_EQ(load_image(machine, bitmap_image(Bytes(kBmpSize + 1, 0))), 0);
        expect_everything_changed();
    });
}

TEST(bitmap_file, every_flipped_bit_is_found) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        const Bytes good = bitmap_image(some_bits());
        for (std::size_t at = 0; at < good.size(); ++at) {
            for (int b = 0; b < 8; ++b) {
                Bytes image = good;
                image[at] ^= static_cast<std::uint8_t>(1 << b);
                SCOPED_TRACE(testing::Message() << "byte " << at << " bit " << b);
                const char *text = at < 7    ? "is corrupt: Invalid prefix."
                                   : at < 8  ? "is dirty. Ignoring file contents."
                                   : at < 12 ? "contains bitmap of invalid size."
                                             : "has invalid checksum.";
                EXPECT_EQ(load_image(machine, image), at < 7 ? -EIO : 0);
                EXPECT_EQ(sim::count_log(text), 1u);
                expect_everything_changed();
            }
        }
    });
}

// The size is there from byte 9 on here (its upper bytes are 0), so shorter files fail by their size and
// longer ones by their checksum; bitmaps that end in zeroes must not pass for lack of bytes to check.
TEST(bitmap_file, every_truncation_is_found) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        for (const Bytes &bits : {some_bits(), Bytes(kBmpSize, 0), Bytes(kBmpSize, 0xff)}) {
            const Bytes good = bitmap_image(bits);
            for (std::size_t length = 0; length < good.size(); ++length) {
                SCOPED_TRACE(testing::Message() << "length " << length);
                const Bytes image(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length));
                EXPECT_EQ(load_image(machine, image), length < 7 ? -EIO : 0);
                EXPECT_EQ(sim::count_log(length < 7   ? "is corrupt: Invalid prefix."
                                         : length < 9 ? "contains bitmap of invalid size."
                                                      : "has invalid checksum."),
                          1u);
                expect_everything_changed();
            }
            EXPECT_EQ(load_image(machine, good), 0);
            EXPECT_EQ(incr_bmp(0), bits);
        }
    });
}

TEST(bitmap_file, bytes_after_the_bitmap_are_not_looked_at) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        Bytes image = bitmap_image(some_bits());
        image.push_back(0x77);
        EXPECT_EQ(load_image(machine, image), 0);
        EXPECT_EQ(incr_bmp(0), some_bits());
    });
}

TEST(bitmap_file, directory_in_its_place_fails_load_and_save) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        machine.storage.remove(kIncrFile);
        machine.storage.mkdir(kIncrFile);
        EXPECT_LT(load_incr(), 0);
        expect_everything_changed();
        EXPECT_EQ(save_incr(), -EIO);
        expect_everything_changed();
    });
}

TEST(bitmap_file, failed_reads_are_the_result_and_everything_counts_as_changed) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        for (std::uint64_t nth = 1; nth <= 5; ++nth) {  // magic, dirty byte, size, checksum, bitmap
            ASSERT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_INCR), 0);
            sim::fail_nth(sim::Fault::kRead, nth);
            EXPECT_EQ(load_incr(), -EIO) << "read " << nth;
            expect_everything_changed();
        }
        ASSERT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_INCR), 0);
        sim::fail_nth(sim::Fault::kRead, 6);
        EXPECT_EQ(load_incr(), 0);
        EXPECT_EQ(incr_bmp(0), Bytes(kBmpSize, 0));
    });
}

TEST(bitmap_file, failed_writes_are_the_result_and_the_bitmap_stays_dirty) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        for (std::uint64_t nth = 1; nth <= 5; ++nth) {
            ASSERT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_INCR), 0);
            EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
            sim::fail_nth(sim::Fault::kWrite, nth);
            EXPECT_EQ(save_incr(), -EIO) << "write " << nth;
            EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
            sim::fail_none();
            // What the failed save left is no bitmap.
            load_incr();
            expect_everything_changed();
        }
    });
}

TEST(bitmap_file, full_file_system_never_leaves_a_map_with_a_missed_extent) {
    Machine machine;
    machine.storage.mount("/bmp", 8u << 20 | 99u);
    boot(machine, [&] {
        make_clean_filter();
        ASSERT_EQ(write_node(0, 0, 8), 0);
        const std::size_t whole = machine.storage.read_file(kIncrFile).size();
        bool saved = false;
        for (std::uint64_t room = 0; !saved && room < 100'000; room = room * 2 + 1) {
            machine.storage.remove(kIncrFile);
            machine.storage.set_free_bytes("/bmp", room);
            const int rc = save_incr();
            saved = rc == 0;
            EXPECT_TRUE(rc == 0 || rc == -ENOSPC || rc == -EIO) << rc;
            EXPECT_EQ(filter(0).incr_bmp_dirty, saved ? 0u : 1u);
            const Bytes before = incr_bmp(0);
            load_incr();
            EXPECT_TRUE(covers(incr_bmp(0), before));
            ASSERT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_INCR), 0);
            ASSERT_EQ(write_node(0, 0, 8), 0);
        }
        EXPECT_TRUE(saved);
        EXPECT_EQ(whole, 16 + kBmpSize);
        machine.storage.set_free_bytes("/bmp", 1 << 20);
    });
}

TEST(bitmap_file, read_only_file_system_fails_saves_and_keeps_the_bitmap_dirty) {
    Machine machine;
    machine.storage.mount("/bmp", 8u << 20 | 99u);
    boot(machine, [&] {
        make_clean_filter();
        machine.storage.set_read_only("/bmp", true);
        ASSERT_EQ(write_node(0, 0, 8), 0);
        EXPECT_EQ(save_incr(), -EIO);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
        EXPECT_EQ(incr_bmp(0)[0], 1);
        wait_for_no_requests();
        machine.storage.set_read_only("/bmp", false);
        EXPECT_EQ(save_incr(), 0);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
    });
}

TEST(bitmap_file, files_on_the_node_itself_are_never_written) {
    Machine machine;
    machine.storage.mount("/bmp", os_mkdev(100, 0));
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(start(0), 0);
        const Bytes before = incr_bmp(0);
        EXPECT_EQ(save_incr(), -EINVAL);
        EXPECT_TRUE(logged_error("trak_block_save_bmp(): Can't save bitmap to /bmp/trak0.incr. The "
                                 "file must be moved to a different partition."));
        EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
        EXPECT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_DIFF), 0);
        EXPECT_EQ(filter(0).diff_bmp_dirty, 1u);
        EXPECT_EQ(trak_block_write_dirty_flag(&filter(0), 0, 1), -EINVAL);
        EXPECT_TRUE(logged_error("trak_block_write_dirty_flag(): Can't set dirty flag in "
                                 "/bmp/trak0.diff. The file must be moved to a different "
                                 "partition."));
        EXPECT_FALSE(machine.storage.exists(kIncrFile));
        EXPECT_FALSE(machine.storage.exists(kDiffFile));
        EXPECT_EQ(incr_bmp(0), before);
    });
}

TEST(bitmap_file, files_on_the_filtered_disk_are_written) {
    Machine machine;
    machine.storage.mount("/bmp", kDisk);
    boot(machine, [&] {
        make_clean_filter();
        EXPECT_EQ(save_incr(), 0);
        EXPECT_TRUE(machine.storage.exists(kIncrFile));
    });
}

TEST(bitmap_file, flag_one_cuts_the_file_and_flag_zero_leaves_the_rest) {
    Machine machine;
    boot(
        machine,
        [&] {
            make_clean_filter();
            const Bytes saved = machine.storage.read_file(kIncrFile);
            EXPECT_EQ(trak_block_write_dirty_flag(&filter(0), 1, 0), 0);
            EXPECT_EQ(machine.storage.read_file(kIncrFile), saved);
            EXPECT_EQ(trak_block_write_dirty_flag(&filter(0), 1, 7), 0);
            EXPECT_EQ(machine.storage.read_file(kIncrFile), dirty_image());
            EXPECT_EQ(machine.storage.read_file_durable(kIncrFile), dirty_image());
            EXPECT_EQ(trak_block_write_dirty_flag(&filter(0), 1, 0), 0);
            Bytes clean = dirty_image();
            clean[7] = 0;
            EXPECT_EQ(machine.storage.read_file(kIncrFile), clean);
            EXPECT_TRUE(
                logged(2, "trak_block_write_dirty_flag(): Writing dirty flag 7 into Incremental "
                          "bitmap of trak(100, 0)"));
            EXPECT_TRUE(
                logged(2, "trak_block_write_dirty_flag(): Writing dirty flag 0 into Incremental "
                          "bitmap of trak(100, 0)"));
        },
        2);
}

TEST(bitmap_file, failed_flag_writes_are_reported) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        sim::fail_nth(sim::Fault::kWrite, 1);
        EXPECT_EQ(trak_block_write_dirty_flag(&filter(0), 1, 1), -EIO);
        sim::fail_nth(sim::Fault::kWrite, 2);
        EXPECT_EQ(trak_block_write_dirty_flag(&filter(0), 1, 1), -EIO);
        machine.storage.fail_path(kIncrFile, sim::Fault::kOpen, -EACCES);
        EXPECT_EQ(trak_block_write_dirty_flag(&filter(0), 1, 1), -EIO);
        machine.storage.fail_path(kIncrFile, sim::Fault::kOpen, 0);
    });
}

TEST(bitmap_file, save_without_memory_leaves_everything_as_it_was) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        const Bytes before = machine.storage.read_file(kIncrFile);
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(trak_block_save_bmp(&filter(0), 1), -ENOMEM);
        EXPECT_TRUE(logged_error("trak_block_save_bmp(): Failed to allocate 32 bytes."));
        EXPECT_EQ(machine.storage.read_file(kIncrFile), before);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
    });
}

TEST(bitmap_file, load_without_memory_leaves_the_bitmap_as_it_was) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        Bytes bits = some_bits();
        ASSERT_EQ(bmp_data_command(TRAK_SET_BMP, 0, TRAK_BMP_INCR, bits), 0);
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(trak_block_load_bmp(&filter(0), 1), -ENOMEM);
        EXPECT_TRUE(logged_error("trak_block_load_bmp(): Failed to allocate 32 bytes."));
        EXPECT_EQ(incr_bmp(0), bits);
    });
}

// Otherwise a map that a command changed, and that could not be saved, would be loaded after a crash from
// the old file, which still says clean.
TEST(bitmap_file, old_file_is_marked_dirty_when_a_save_cannot_write_it) {
    for (const sim::Fault kind : {sim::Fault::kOpen, sim::Fault::kAlloc}) {
        Machine machine;
        boot(machine, [&] {
            make_clean_filter();
            filter(0).incr_bmp[3] = 0x10;
            filter(0).incr_bmp_dirty = 1;
            // The first look at the path is for the device that holds the file.
            sim::fail_nth(kind, kind == sim::Fault::kOpen ? 2 : 1);
            EXPECT_EQ(trak_block_save_bmp(&filter(0), TRAK_BMP_INCR),
                      kind == sim::Fault::kOpen ? -EIO : -ENOMEM);
            EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
            wait_for_no_requests();
            EXPECT_EQ(machine.storage.read_file(kIncrFile), dirty_image());
        });
    }
}

TEST(bitmap_file, save_dirty_saves_what_is_dirty_incremental_first) {
    Machine machine;
    boot(
        machine,
        [&] {
            make_clean_filter();
            sim::clear_log();
            EXPECT_EQ(trak_block_save_dirty_bmps(&filter(0)), 0);
            EXPECT_EQ(sim::count_log("trak_block_save_bmp"), 0u);
            filter(0).diff_bmp_dirty = 1;
            EXPECT_EQ(trak_block_save_dirty_bmps(&filter(0)), 0);
            EXPECT_EQ(count_messages(2, "trak_block_save_bmp(): Saving Differential bitmap of "
                                        "trak(100, 0)"),
                      1u);
            EXPECT_EQ(sim::count_log("Saving Incremental"), 0u);
            filter(0).incr_bmp_dirty = filter(0).diff_bmp_dirty = 1;
            EXPECT_EQ(trak_block_save_dirty_bmps(&filter(0)), 0);
            const std::string log = whole_log();
            EXPECT_LT(log.rfind("Saving Incremental"), log.rfind("Saving Differential"));
            EXPECT_EQ(count_messages(1,
                                     "trak_block_save_dirty_bmps(): Saving dirty incr/diff bitmaps "
                                     "to disk"),
                      3u);
        },
        2);
}

TEST(bitmap_file, first_error_of_two_saves_or_loads_is_the_result) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        machine.storage.fail_path(kIncrFile, sim::Fault::kWrite, -ENOSPC);
        filter(0).incr_bmp_dirty = filter(0).diff_bmp_dirty = 1;
        EXPECT_EQ(trak_block_save_dirty_bmps(&filter(0)), -ENOSPC);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
        EXPECT_EQ(filter(0).diff_bmp_dirty, 0u);
        machine.storage.fail_path(kIncrFile, sim::Fault::kWrite, 0);
        machine.storage.fail_path(kDiffFile, sim::Fault::kWrite, -ENOSPC);
        filter(0).diff_bmp_dirty = 1;
        EXPECT_EQ(trak_block_save_dirty_bmps(&filter(0)), -ENOSPC);
        machine.storage.fail_path(kDiffFile, sim::Fault::kWrite, 0);
        EXPECT_EQ(trak_block_save_dirty_bmps(&filter(0)), 0);

        EXPECT_EQ(trak_block_load_bmps(&filter(0)), 0);
        EXPECT_TRUE(logged(1, "trak_block_load_bmps(): Loading incr/diff bitmaps"));
        machine.storage.remove(kDiffFile);
        EXPECT_EQ(trak_block_load_bmps(&filter(0)), -EIO);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
        EXPECT_EQ(filter(0).diff_bmp_dirty, 1u);
        machine.storage.fail_path(kIncrFile, sim::Fault::kRead, -ENXIO);
        EXPECT_EQ(trak_block_load_bmps(&filter(0)), -ENXIO);
        machine.storage.fail_path(kIncrFile, sim::Fault::kRead, 0);
    });
}

namespace {

// Once nothing is queued: a clean bitmap's file equals it, a dirty one's file can't be taken for sound.
void expect_file_tells_no_lie(Machine &machine, const char *path, const Bytes &bits, bool dirty) {
    const Bytes file = machine.storage.read_file_durable(path);
    if (dirty)
        EXPECT_EQ(file, dirty_image()) << path;
    else
        EXPECT_EQ(file, bitmap_image(bits)) << path;
}

}  // namespace

// Writers mark while the bitmaps are saved, cleared and saved again by others.
TEST(bitmap_file, saves_that_race_with_writers_lose_no_mark) {
    sim::for_each_seed(60, [](std::uint64_t seed) {
        Machine machine;
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                make_clean_filter();
                os_bdev *bdev = open_node(0);
                std::vector<sim::Process *> tasks;
                for (std::uint64_t w = 0; w < 2; ++w) {
                    tasks.push_back(sim::spawn("writer", [&, w] {
                        for (int i = 0; i < 3; ++i)
                            EXPECT_EQ(sim::write_device(bdev, 8 * (w * 100 + sim::random(100)),
                                                        Bytes(512, 1)),
                                      0);
                    }));
                }
                for (const std::uint32_t type : {TRAK_BMP_INCR, TRAK_BMP_INCR, TRAK_BMP_DIFF}) {
                    tasks.push_back(sim::spawn("saver", [type] {
                        for (int i = 0; i < 2; ++i)
                            EXPECT_EQ(bmp_command(TRAK_SAVE_BMP, 0, type), 0);
                    }));
                }
                for (sim::Process *task : tasks)
                    sim::join(task);
                EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
                expect_file_tells_no_lie(machine, kIncrFile, incr_bmp(0), filter(0).incr_bmp_dirty);
                expect_file_tells_no_lie(machine, kDiffFile, diff_bmp(0), filter(0).diff_bmp_dirty);
                sim::close_device(bdev);
                expect_file_tells_no_lie(machine, kIncrFile, incr_bmp(0), false);
            },
            1, options);
    });
}

TEST(bitmap_file, bitmaps_survive_unload) {
    Machine machine;
    Bytes incr, diff;
    boot(machine, [&] {
        make_clean_filter();
        ASSERT_EQ(write_node(0, 80, 20), 0);
        ASSERT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_INCR), 0);
        ASSERT_EQ(write_node(0, 16, 1), 0);
        incr = incr_bmp(0);
        diff = diff_bmp(0);
        EXPECT_NE(incr, diff);
    });
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        EXPECT_EQ(incr_bmp(0), incr);
        EXPECT_EQ(diff_bmp(0), diff);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
    });
}

TEST(bitmap_file, map_after_a_power_cut_has_every_mark_whose_flag_was_written) {
    sim::for_each_seed(40, [](std::uint64_t seed) {
        Machine machine;
        sim::Options options;
        options.seed = seed;
        Bytes incr, diff;
        EXPECT_THROW(boot(
                         machine,
                         [&] {
                             make_clean_filter();
                             os_bdev *bdev = open_node(0);
                             for (int i = 0; i < 4; ++i) {
                                 EXPECT_EQ(
                                     sim::write_device(bdev, sim::random(2000), Bytes(512, 1)), 0);
                                 if (sim::random(2) == 0) {
                                     EXPECT_EQ(save_incr(), 0);
                                 }
                             }
                             EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
                             incr = incr_bmp(0);
                             diff = diff_bmp(0);
                             sim::power_cut();
                         },
                         1, options),
                     sim::PowerCut);
        boot(machine, [&] {
            ASSERT_EQ(add_filter(0), 0);
            EXPECT_TRUE(covers(incr_bmp(0), incr));
            EXPECT_TRUE(covers(diff_bmp(0), diff));
        });
    });
}
