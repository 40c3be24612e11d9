// tests/unit/readers/reiserfs_test.cpp: the reader of ReiserFS
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/readers/reader_world.h"

namespace {

using namespace reader_world;

struct ReiserDisk : Machine {
    explicit ReiserDisk(const Reiser &fs) : Machine(fs.bytes() + (1 << 20)) {
        put(*this, fs.pieces());
    }
};

// Three bitmap blocks, the last one short.
Reiser three_bitmaps(std::uint32_t block_size = 512) {
    Reiser fs(block_size, block_size * 8 * 2 + 1000);
    scatter(fs.used, 9);
    return fs;
}

void probe_reiser(os_bdev *bdev) {
    (void)reiserfs_reader_destroy(reiserfs_reader_init(bdev, nullptr));
}

TEST(reiserfs_reader, chunk_holds_data_exactly_when_one_of_its_blocks_is_in_use) {
    for (const std::uint32_t size : {512u, 1024u, 4096u}) {
        const Reiser fs = three_bitmaps(size);
        ReiserDisk disk(fs);
        on_reader(disk, kReiser, [&](void *context) {
            expect_used(kReiser, context, size, fs.used, fs.blocks + 40);
        });
    }
}

TEST(reiserfs_reader, bitmap_block_0_is_block_17_and_bitmap_block_1_is_block_32768_of_4_kib) {
    const Reiser fs(4096, 40000);
    ReiserDisk disk(fs);
    fail_bytes(disk, 17ull * 4096, 512);
    expect_refused(disk, kReiser,
                   "reiserfs_reader_init(): Failed to read Bitmap #0 (from block 17): rc=-5");
    disk.disk.heal();
    fail_bytes(disk, 32768ull * 4096, 512);
    expect_refused(disk, kReiser,
                   "reiserfs_reader_init(): Failed to read Bitmap #1 (from block 32768): rc=-5");
}

TEST(reiserfs_reader, chunk_of_several_bitmaps_is_skipped_into_the_one_where_the_next_begins) {
    Reiser fs(512, 4096 * 9);
    ReiserDisk disk(fs);
    on_reader(disk, kReiser, [&](void *context) {
        // Each bitmap block is in use, at the begin of what it covers.
        EXPECT_EQ(read_map(kReiser, context, 0, 8 << 20, 4), Bytes({0b0111}));
        EXPECT_EQ(read_map(kReiser, context, 1, 8 << 20, 2), Bytes({0b11}));
        EXPECT_EQ(read_map(kReiser, context, 2, 8 << 20, 8), Bytes({1}));
        EXPECT_EQ(read_map(kReiser, context, 0, 1 << 20, 18),
                  Bytes({0b01010101, 0b01010101, 0b01}));
    });
}

TEST(reiserfs_reader, read_stops_at_the_last_block) {
    const Reiser fs(512, 3000);  // the bits of 3000 to 4095 are set in the bitmap
    ReiserDisk disk(fs);
    on_reader(disk, kReiser, [&](void *context) {
        const Bytes bits = read_map(kReiser, context, 0, 512, 4096);
        for (std::uint32_t b = 0; b < 4096; ++b)
            ASSERT_EQ(bit(bits, b), b < fs.blocks && fs.used[b]) << b;
        EXPECT_EQ(read_map(kReiser, context, 0xFFFFFFF0, 2 << 20, 8), Bytes({0}));
    });
}

TEST(reiserfs_reader, read_before_the_end_of_the_bitmaps_keeps_its_cache_true) {
    const Reiser fs = three_bitmaps();
    ReiserDisk disk(fs);
    on_reader(disk, kReiser, [&](void *context) {
        for (const std::uint32_t first : {8192u, 0u, 4096u, 4095u, 8191u, 100u}) {
            const Bytes bits = read_map(kReiser, context, first, 512, 200);
            for (std::uint32_t b = 0; b < 200; ++b)
                ASSERT_EQ(bit(bits, b), fs.used[first + b]) << first + b;
        }
    });
}

TEST(reiserfs_reader, another_magic_is_another_file_system) {
    for (const char *magic : {"ReIsErFs\0", "ReIsEr3Fs", "ReIsEr2Fx", "ReIsEr2F\0", "xeIsEr2Fs"}) {
        ReiserDisk disk(three_bitmaps());
        Bytes bytes(9);
        std::memcpy(bytes.data(), magic, 9);
        disk.disk.write(Reiser::kSuperAt + 52, bytes);
        expect_level(
            disk, 3, "reiserfs_reader_init(): hdd(8, 16) doesn't have ReiserFS.",
            [](os_bdev *bdev) { EXPECT_EQ(reiserfs_reader_init(bdev, nullptr), nullptr); });
    }
    ReiserDisk disk(three_bitmaps());
    disk.disk.write(Reiser::kSuperAt + 61, Bytes{'x'});  // goes on after the magic
    expect_level(disk, 3, "reiserfs_reader_init(): hdd(8, 16) doesn't have ReiserFS.",
                 [](os_bdev *bdev) { EXPECT_EQ(reiserfs_reader_init(bdev, nullptr), nullptr); });
}

TEST(reiserfs_reader, last_byte_of_the_magic_field_is_not_looked_at) {
    ReiserDisk disk(three_bitmaps());
    disk.disk.write(Reiser::kSuperAt + 63, Bytes{'x'});
    on_reader(disk, kReiser, [](void *) {});
}

TEST(reiserfs_reader, recognised_file_system_is_described_at_level_2) {
    const Reiser fs(4096, 40000);
    ReiserDisk disk(fs);
    for (const std::string &text :
         {std::string("reiserfs_reader_init(): Detected ReiserFS on hdd(8, 16)"),
          std::string("   magic=\"ReIsEr2Fs\""), std::string("   block_size=4096"),
          std::string("   block_count=40000"), "   free_count=" + std::to_string(fs.free_blocks()),
          std::string("   bitmaps=2"), std::string("   state=1 (VALID)"),
          std::string("   version=2"), std::string("   inode_generation=7")})
        expect_level(disk, 2, text, probe_reiser);
    patch_le(disk, Reiser::kSuperAt + 50, 2, 2);
    expect_level(disk, 2, "   state=2 (ERROR)", probe_reiser);
    on_disk(disk, [](os_bdev *bdev) {
        std::int32_t block_size = 0;
        (void)reiserfs_reader_destroy(reiserfs_reader_init(bdev, &block_size));
        EXPECT_EQ(block_size, 4096);
    });
}

TEST(reiserfs_reader, free_count_that_differs_from_the_bitmaps_is_refused) {
    for (const int off : {-1, 1}) {
        const Reiser fs = three_bitmaps();
        ReiserDisk disk(fs);
        const std::uint32_t stated = fs.free_blocks() + static_cast<std::uint32_t>(off);
        patch_le(disk, Reiser::kSuperAt + 4, stated, 4);
        expect_refused(disk, kReiser,
                       "reiserfs_reader_init(): Unexpected inconsistency of ReiserFS SB on "
                       "hdd=(8, 16) says that it has " +
                           std::to_string(stated) + " blocks, but bitmaps argue for " +
                           std::to_string(fs.free_blocks()));
    }
}

TEST(reiserfs_reader, clear_bits_beyond_the_last_block_count_unless_it_is_a_multiple_of_8) {
    for (const std::uint32_t blocks : {3000u, 3001u}) {
        const Reiser fs(512, blocks);
        ReiserDisk disk(fs);
        // The last byte of the bitmap says eight more free blocks.
        disk.disk.write(fs.at(fs.bitmap_block(0)) + 511, Bytes{0});
        if (blocks % 8 == 0)
            on_reader(disk, kReiser, [](void *) {});
        else
            expect_refused(disk, kReiser,
                           "reiserfs_reader_init(): Unexpected inconsistency of ReiserFS SB on "
                           "hdd=(8, 16) says that it has " +
                               std::to_string(fs.free_blocks()) +
                               " blocks, but bitmaps argue for " +
                               std::to_string(fs.free_blocks() + 8));
    }
}

TEST(reiserfs_reader, superblock_that_cannot_be_read_is_told) {
    ReiserDisk disk(three_bitmaps());
    fail_bytes(disk, Reiser::kSuperAt, 512);
    expect_refused(disk, kReiser,
                   "reiserfs_reader_init(): Failed to read Super Block of hdd(8, 16) at offset "
                   "65536: rc=-5");
    Machine tiny(32768);  // ends before it
    on_disk(tiny, [](os_bdev *bdev) { EXPECT_EQ(reiserfs_reader_init(bdev, nullptr), nullptr); });
}

TEST(reiserfs_reader, bitmap_that_cannot_be_read_ends_the_read) {
    const Reiser fs = three_bitmaps();
    ReiserDisk disk(fs);
    on_reader(disk, kReiser, [&](void *context) {
        fail_bytes(disk, fs.at(fs.bitmap_block(1)), 512);
        int rc = 0;
        (void)read_map(kReiser, context, 0, 512, static_cast<std::int32_t>(fs.blocks), &rc);
        EXPECT_EQ(rc, -EIO);
        EXPECT_TRUE(logged_error("reiserfs_reader_read(): Failed to read Bitmap #1: rc=-5"))
            << whole_log();
        disk.disk.heal();
        expect_used(kReiser, context, 512, fs.used, fs.blocks);
    });
}

TEST(reiserfs_reader, sizes_that_do_not_fit_are_refused) {
    const Reiser fs = three_bitmaps();
    const auto message = [&](std::uint32_t blocks, std::uint32_t size, std::uint32_t bitmaps) {
        return "reiserfs_reader_init(): hdd(8, 16) can't have " + std::to_string(blocks) +
               " blocks of " + std::to_string(size) + " bytes in " + std::to_string(bitmaps) +
               " bitmap blocks.";
    };
    for (const std::uint32_t size : {0u, 1u, 256u, 511u, 513u, 0xffffu, 0x8000u}) {
        ReiserDisk disk(fs);
        patch_le(disk, Reiser::kSuperAt + 44, size, 2);
        expect_refused(disk, kReiser, message(fs.blocks, size, fs.bitmaps));
    }
    for (const std::uint32_t bitmaps : {0u, 2u, 4u, 0xffffu}) {
        ReiserDisk disk(fs);
        patch_le(disk, Reiser::kSuperAt + 70, bitmaps, 2);
        expect_refused(disk, kReiser, message(fs.blocks, 512, bitmaps));
    }
    for (const std::uint32_t blocks : {0u, 0xffffffffu, 4096u * 3 + 1}) {
        ReiserDisk disk(fs);
        patch_le(disk, Reiser::kSuperAt, blocks, 4);
        expect_refused(disk, kReiser, message(blocks, 512, fs.bitmaps));
    }
}

TEST(reiserfs_reader, blocks_larger_than_a_page_are_refused) {
    Reiser fs(8192, 2000);
    ReiserDisk disk(fs);
    expect_refused(disk, kReiser,
                   "reiserfs_reader_init(): Failed to read Bitmap #0 (from block 9): rc=-22");
}

TEST(reiserfs_reader, journal_with_a_transaction_that_was_not_written_home_is_refused) {
    const Reiser fs = three_bitmaps();
    ReiserDisk disk(fs);
    disk.disk.write(fs.at(fs.journal()), fs.transaction(5));
    expect_refused(disk, kReiser,
                   "reiserfs_reader_init(): The journal of hdd(8, 16) must be replayed first.");
    // Written home: it is an old one, or the next one would begin behind it.
    patch_le(disk, fs.at(fs.journal_header()), 5, 4);
    on_reader(disk, kReiser, [](void *) {});
    patch_le(disk, fs.at(fs.journal_header()), 4, 4);
    patch_le(disk, fs.at(fs.journal_header()) + 4, 3, 4);
    on_reader(disk, kReiser, [](void *) {});
}

TEST(reiserfs_reader, journal_that_cannot_be_read_is_refused) {
    const Reiser fs = three_bitmaps(4096);
    const std::string text = "reiserfs_reader_init(): The journal of hdd(8, 16) can't be read.";
    ReiserDisk disk(fs);
    fail_bytes(disk, fs.at(fs.journal_header()), 512);
    expect_refused(disk, kReiser, text);
    disk.disk.heal();
    fail_bytes(disk, fs.at(fs.journal()), 512);
    expect_refused(disk, kReiser, text);
    disk.disk.heal();
    patch_le(disk, Reiser::kSuperAt + 16, 0x801, 4);  // on another device
    expect_refused(disk, kReiser, text);
    patch_le(disk, Reiser::kSuperAt + 16, 0, 4);
    patch_le(disk, Reiser::kSuperAt + 20, 0, 4);  // of no size
    expect_refused(disk, kReiser, text);
    patch_le(disk, Reiser::kSuperAt + 20, 0xffffffff, 4);
    expect_refused(disk, kReiser, text);
}

TEST(reiserfs_reader, arguments_of_a_read_are_checked) {
    ReiserDisk disk(Reiser(4096, 500));
    expect_arguments_checked(disk, kReiser, "reiserfs_reader_read", 4096);
}

TEST(reiserfs_reader, init_without_memory_gives_nothing_and_keeps_nothing) {
    const Reiser fs = three_bitmaps();
    ReiserDisk disk(fs);
    expect_no_memory_is_survived(disk, kReiser, 5);
    // The context's message has no full stop, that of its buffers has one.
    const std::pair<unsigned, const char *> steps[] = {
        {1, "reiserfs_reader_init(): Memory allocation failed"},
        {2, "reiserfs_reader_init(): Memory allocation failed."},
        {5, "reiserfs_reader_init(): Memory allocation failed."}};
    for (const auto &[n, text] : steps)
        on_disk(disk, [n = n, text = text](os_bdev *bdev) {
            sim::fail_nth(sim::Fault::kAlloc, n);
            EXPECT_EQ(reiserfs_reader_init(bdev, nullptr), nullptr);
            EXPECT_TRUE(logged_error(text)) << whole_log();
        });
}

}  // namespace
