// tests/unit/readers/ext2_test.cpp: the reader of ext2 and ext3
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/readers/reader_world.h"

namespace {

using namespace reader_world;

constexpr std::uint64_t kSuper = 1024;

// Three groups, the last one short, on a disk a little larger.
Ext2 small() {
    Ext2 fs(1024, 8192 * 2 + 1701);
    scatter(fs.used, 5);
    return fs;
}
std::uint64_t disk_for(std::uint64_t bytes) {
    return bytes + 64 * 1024;
}

struct Disk : Machine {
    explicit Disk(const Ext2 &fs) : Machine(disk_for(fs.bytes())) { put(*this, fs.pieces()); }
};

void probe(os_bdev *bdev) {
    (void)ext2_reader_destroy(ext2_reader_init(bdev, nullptr));
}

TEST(ext2_reader, blocks_0_and_1_are_in_use_with_blocks_of_1_kib_and_block_0_alone_with_4_kib) {
    for (const std::uint32_t size : {1024u, 2048u, 4096u}) {
        Ext2 fs(size, 4000);
        fs.used.assign(fs.blocks, false);  // even where no bitmap says so
        Disk disk(fs);
        std::vector<bool> forced(fs.blocks);
        forced[0] = true;
        forced[1] = size == 1024;
        on_reader(disk, kExt2, [&](void *context) {
            expect_used(kExt2, context, size, forced, fs.blocks);
            // A read that begins behind them does not set them.
            EXPECT_FALSE(bit(read_map(kExt2, context, 2, size, 1), 0));
            EXPECT_EQ(bit(read_map(kExt2, context, 1, size, 1), 0), size == 1024);
        });
    }
}

TEST(ext2_reader, chunk_holds_data_exactly_when_one_of_its_blocks_is_in_use) {
    for (const std::uint32_t size : {1024u, 2048u, 4096u}) {
        Ext2 fs(size, size * 8 * 2 + 4321);
        scatter(fs.used, size);
        Disk disk(fs);
        on_reader(disk, kExt2, [&](void *context) {
            expect_used(kExt2, context, size, fs.used, fs.blocks + 40);
        });
    }
}

TEST(ext2_reader, chunk_of_several_groups_is_skipped_into_the_group_where_the_next_one_begins) {
    Ext2 fs(1024, 8192 * 9 + 100);
    fs.used[8192 * 4 + 77] = true;
    fs.used[8192 * 9 + 50] = true;
    Disk disk(fs);
    on_reader(disk, kExt2, [&](void *context) {
        const Bytes bits = read_map(kExt2, context, 0, 16 << 20, 5);
        EXPECT_EQ(bits, Bytes({0b10101}));
        EXPECT_EQ(read_map(kExt2, context, 2, 16 << 20, 3), Bytes({0b101}));
        EXPECT_EQ(read_map(kExt2, context, 3, 16 << 20, 2), Bytes({0b10}));
    });
}

TEST(ext2_reader, bits_of_the_last_bitmap_beyond_the_last_block_are_not_read) {
    Ext2 fs(1024, 2000);
    Disk disk(fs);
    on_reader(disk, kExt2, [&](void *context) {
        const Bytes bits = read_map(kExt2, context, 0, 1024, 2064);
        EXPECT_TRUE(bit(fs.bitmap(0), 1999));  // the padding is set
        for (std::uint32_t c = fs.bitmap_block(1); c < 2064; ++c)
            ASSERT_FALSE(bit(bits, c)) << c;
        EXPECT_EQ(read_map(kExt2, context, 5000, 1024, 8), Bytes({0}));
        EXPECT_EQ(read_map(kExt2, context, 0xFFFFFFF0, 2 << 20, 8), Bytes({0}));
    });
}

TEST(ext2_reader, group_with_another_free_count_counts_as_full) {
    const Ext2 fs = small();
    for (const int off : {-1, 1}) {
        Disk disk(fs);
        const std::uint32_t stated = fs.free_in(1) + static_cast<std::uint32_t>(off);
        patch_le(disk, fs.desc_at(1) + 12, stated, 2);
        std::vector<bool> used = fs.used;
        for (std::uint32_t i = 0; i < fs.per_group; ++i)
            used[fs.per_group + fs.first + i] = true;
        on_reader(disk, kExt2, [&](void *context) {
            for (unsigned read = 1; read <= 3; ++read) {
                const Bytes bits =
                    read_map(kExt2, context, 0, 1024, static_cast<std::int32_t>(fs.blocks));
                for (std::uint32_t b = 0; b < fs.blocks; ++b)
                    ASSERT_EQ(bit(bits, b), used[b]) << b;
                EXPECT_EQ(count_messages(255, "ext2_reader_read(): Number of free blocks (" +
                                                  std::to_string(stated) +
                                                  ") in block group 1 is inconsistent with the "
                                                  "bitmap (" +
                                                  std::to_string(fs.free_in(1)) + ")."),
                          read)
                    << whole_log();
            }
            expect_used(kExt2, context, 1024, used, fs.blocks);
        });
    }
}

TEST(ext2_reader, bitmap_that_was_never_written_counts_as_full) {
    const Ext2 fs = small();
    for (const std::uint32_t feature : {0x10u, 0x400u, 0u}) {
        Disk disk(fs);
        patch_le(disk, kSuper + 100, feature, 4);
        patch_le(disk, fs.desc_at(0) + 18, 0x2, 2);
        on_reader(disk, kExt2, [&](void *context) {
            const Bytes bits = read_map(kExt2, context, 1, 1024, 8192);
            const bool full = std::all_of(bits.begin(), bits.end(),
                                          [](std::uint8_t byte) { return byte == 0xff; });
            EXPECT_EQ(full, feature != 0);
        });
    }
}

TEST(ext2_reader, another_magic_is_another_file_system) {
    const Ext2 fs = small();
    Disk disk(fs);
    patch_le(disk, kSuper + 56, 0xEF54, 2);
    expect_level(disk, 3, "ext2_reader_init(): hdd(8, 16) doesn't have ext2/ext3 FS.",
                 [](os_bdev *bdev) { EXPECT_EQ(ext2_reader_init(bdev, nullptr), nullptr); });
}

TEST(ext2_reader, recognised_file_system_is_described_at_level_2) {
    Ext2 fs(2048, 16384 + 5000);
    Disk disk(fs);
    for (const char *text :
         {"ext2_reader_init(): Detected ext2/ext3 FS on hdd(8, 16)", "   magic=0xef53",
          "   block_size=2048", "   blocks_count=21384 (41MB)", "   blocks_per_group=16384",
          "   group_desc_count=2", "   desc_blocks=1"})
        expect_level(disk, 2, text, probe);
    on_disk(disk, [](os_bdev *bdev) {
        std::int32_t block_size = 0;
        (void)ext2_reader_destroy(ext2_reader_init(bdev, &block_size));
        EXPECT_EQ(block_size, 2048);
    });
}

TEST(ext2_reader, superblock_without_sizes_is_corrupt) {
    const Ext2 fs = small();
    for (const std::uint64_t field : {4, 32, 40}) {
        Disk disk(fs);
        patch_le(disk, kSuper + field, 0, 4);
        expect_refused(disk, kExt2, "ext2_reader_init(): Superblock of hdd(8, 16) is corrupt.");
    }
}

TEST(ext2_reader, superblock_with_impossible_sizes_is_corrupt) {
    const Ext2 fs = small();
    for (const std::uint32_t shift : {7u, 21u, 22u, 32u, 0x7fffffffu, 0xffffffffu}) {
        Disk disk(fs);
        patch_le(disk, kSuper + 24, shift, 4);
        expect_refused(disk, kExt2, "ext2_reader_init(): Superblock of hdd(8, 16) is corrupt.");
    }
    for (const std::uint32_t first : {2u, 18085u, 0xffffffffu}) {
        Disk disk(fs);
        patch_le(disk, kSuper + 20, first, 4);
        expect_refused(disk, kExt2, "ext2_reader_init(): Superblock of hdd(8, 16) is corrupt.");
    }
    Disk disk(fs);
    patch_le(disk, kSuper + 4, 1, 4);  // the first data block is beyond it
    expect_refused(disk, kExt2, "ext2_reader_init(): Superblock of hdd(8, 16) is corrupt.");
}

TEST(ext2_reader, meta_block_groups_are_refused) {
    Disk disk(small());
    patch_le(disk, kSuper + 96, 0x10, 4);
    expect_refused(disk, kExt2,
                   "ext2_reader_init(): Sorry, we don't support ext2/ext3 with meta block groups.");
}

TEST(ext2_reader, features_that_change_what_bitmaps_mean_are_refused) {
    const Ext2 fs = small();
    // The last two are of nothing that is known.
    for (const std::uint32_t incompat : {0x04u, 0x08u, 0x80u, 0x800u, 0x80000000u}) {
        Disk disk(fs);
        patch_le(disk, kSuper + 96, incompat, 4);
        char text[128];
        std::snprintf(text, sizeof text,
                      "ext2_reader_init(): hdd(8, 16) has features that make its bitmaps "
                      "unreadable: 0x%x, 0x0",
                      incompat);
        expect_refused(disk, kExt2, text);
    }
    for (const std::uint32_t ro_compat : {0x80u, 0x200u, 0x4000u, 0x80000000u}) {
        Disk disk(fs);
        patch_le(disk, kSuper + 100, ro_compat, 4);
        char text[128];
        std::snprintf(text, sizeof text,
                      "ext2_reader_init(): hdd(8, 16) has features that make its bitmaps "
                      "unreadable: 0x0, 0x%x",
                      ro_compat);
        expect_refused(disk, kExt2, text);
    }
}

TEST(ext2_reader, groups_of_another_size_are_refused) {
    Disk disk(small());
    patch_le(disk, kSuper + 32, 8184, 4);
    expect_refused(disk, kExt2,
                   "ext2_reader_init(): hdd(8, 16) has groups of 8184 blocks instead of 8192.");
}

TEST(ext2_reader, superblock_that_cannot_be_read_is_told) {
    Disk disk(small());
    fail_bytes(disk, kSuper, 512);
    expect_refused(disk, kExt2,
                   "ext2_reader_init(): Failed to read Super Block of hdd(8, 16): rc=-5");
}

TEST(ext2_reader, descriptors_that_cannot_be_read_are_told) {
    const Ext2 fs = small();
    Disk disk(fs);
    fail_bytes(disk, fs.desc_at(0), 512);
    expect_refused(
        disk, kExt2,
        "ext2_reader_init(): Failed to read Block Group Descriptors of hdd(8, 16): rc=-5");
}

TEST(ext2_reader, descriptors_beyond_the_disk_are_refused_without_memory_for_them) {
    // As many blocks as can be have 16 MiB of descriptors.
    Machine tiny(1 << 20);
    put(tiny, Ext2(1024, 1000).pieces());
    patch_le(tiny, kSuper + 4, 0xffffffff, 4);
    expect_refused(
        tiny, kExt2,
        "ext2_reader_init(): Failed to read Block Group Descriptors of hdd(8, 16): rc=-5");
}

TEST(ext2_reader, bitmap_that_cannot_be_read_ends_the_read) {
    const Ext2 fs = small();
    Disk disk(fs);
    fail_bytes(disk, fs.bitmap_at(2), 1024);
    on_reader(disk, kExt2, [&](void *context) {
        int rc = 0;
        (void)read_map(kExt2, context, 0, 1024, static_cast<std::int32_t>(fs.blocks), &rc);
        EXPECT_EQ(rc, -EIO);
        EXPECT_TRUE(
            logged_error("ext2_reader_read(): Failed to read Data Bitmap of Block Group 2: rc=-5"))
            << whole_log();
        // What was cached stays right, and the disk may come back.
        (void)read_map(kExt2, context, 0, 1024, 8000);
        disk.disk.heal();
        expect_used(kExt2, context, 1024, fs.used, fs.blocks);
    });
}

TEST(ext2_reader, bitmap_beyond_the_disk_ends_the_read) {
    const Ext2 fs = small();
    for (const std::uint32_t block : {fs.blocks + 1000, 0xffffffffu}) {
        Disk disk(fs);
        patch_le(disk, fs.desc_at(1), block, 4);
        on_reader(disk, kExt2, [&](void *context) {
            int rc = 0;
            (void)read_map(kExt2, context, 0, 1024, static_cast<std::int32_t>(fs.blocks), &rc);
            EXPECT_LT(rc, 0);
        });
    }
}

TEST(ext2_reader, arguments_of_a_read_are_checked) {
    Disk disk(Ext2(4096, 500));
    expect_arguments_checked(disk, kExt2, "ext2_reader_read", 4096);
}

TEST(ext2_reader, init_without_memory_gives_nothing_and_keeps_nothing) {
    Disk disk(Ext2(2048, 3000));
    expect_no_memory_is_survived(disk, kExt2, 7);
    on_disk(disk, [](os_bdev *bdev) {
        sim::fail_nth(sim::Fault::kAlloc, 4);  // after the superblock, its page and its bio
        EXPECT_EQ(ext2_reader_init(bdev, nullptr), nullptr);
        EXPECT_TRUE(logged_error("ext2_reader_init(): Memory allocation failed.")) << whole_log();
    });
}

}  // namespace
