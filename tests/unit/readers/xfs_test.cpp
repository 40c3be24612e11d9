// tests/unit/readers/xfs_test.cpp: the reader of XFS: superblocks, headers and healthy trees
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/readers/xfs_world.h"

namespace {

using namespace xfs_world;

void probe_xfs(os_bdev *bdev) {
    (void)xfs_reader_destroy(xfs_reader_init(bdev, nullptr));
}

void expect_true_map(const Xfs &fs) {
    XfsDisk disk(fs);
    on_reader(disk, kXfs, [&](void *context) { expect_extents(context, fs); });
}

TEST(xfs_reader, tree_of_height_1_needs_no_descent) {
    Xfs fs(512, 4096, 4096 * 2 + 1500);
    fs.free[0] = {{100, 50}, {200, 3000}, {4000, 96}};
    fs.free[2] = {{1400, 100}};
    ASSERT_EQ(fs.tree(0).size(), 1u);
    expect_true_map(fs);
}

TEST(xfs_reader, trees_of_height_2_and_3_are_walked_along_their_leaves) {
    for (const std::uint32_t per_leaf : {62u, 5u, 2u}) {
        Xfs fs = many_extents();
        fs.per_leaf = per_leaf;
        fs.per_node = per_leaf == 62 ? 41 : 9;
        EXPECT_EQ(fs.tree(0).size(), per_leaf == 62 ? 2u : per_leaf == 5 ? 3u : 4u);
        expect_true_map(fs);
    }
}

TEST(xfs_reader, blocks_of_other_sizes_are_read) {
    for (const std::uint32_t size : {1024u, 2048u, 4096u}) {
        Xfs fs(size, 8192, 8192 * 3 + 77);
        for (std::uint32_t ag = 0; ag < 3; ++ag)
            for (std::uint32_t at = 300 + ag; at + 40 < 8192; at += 60 + ag)
                fs.free[ag].push_back({at, 1 + at % 40});
        expect_true_map(fs);
    }
}

TEST(xfs_reader, chunk_covered_by_two_adjacent_free_extents_holds_data) {
    Xfs fs(512, 4096, 4096);
    fs.free[0] = {{64, 4}, {68, 4}, {72, 8}};
    XfsDisk disk(fs);
    on_reader(disk, kXfs, [&](void *context) {
        // Chunks of 8 blocks: 8 is split, 9 is covered by one.
        EXPECT_EQ(read_map(kXfs, context, 8, 4096, 2), Bytes({0b01}));
        EXPECT_EQ(read_map(kXfs, context, 16, 2048, 4), Bytes({0}));
    });
}

TEST(xfs_reader, leaf_without_a_right_sibling_ends_the_extents_of_its_ag) {
    Xfs fs(512, 4096, 4096 * 2);
    fs.free[0] = {{1000, 24}};
    fs.free[1] = {{0x10, 4}};
    XfsDisk disk(fs);
    on_reader(disk, kXfs, [&](void *context) {
        const Bytes bits = read_map(kXfs, context, 1024, 512, 3072);
        EXPECT_TRUE(std::all_of(bits.begin(), bits.end(), [](auto byte) { return byte == 0xff; }));
        EXPECT_EQ(read_map(kXfs, context, 4096 + 8, 512, 16), Bytes({0xff, 0xf0}));
    });
}

TEST(xfs_reader, ag_without_free_extents_is_all_in_use) {
    Xfs fs(512, 4096, 4096 * 2);
    fs.free[1] = {{100, 3996}};
    expect_true_map(fs);
}

TEST(xfs_reader, chunks_past_the_last_ag_stay_clear) {
    Xfs fs(512, 4096, 4096 * 2);
    XfsDisk disk(fs);
    on_reader(disk, kXfs, [&](void *context) {
        EXPECT_EQ(read_map(kXfs, context, 4096 * 2 - 4, 512, 12), Bytes({0x0f, 0}));
        EXPECT_EQ(read_map(kXfs, context, 0xFFFFFFF0, 2 << 20, 8), Bytes({0}));
    });
}

TEST(xfs_reader, chunk_that_reaches_into_the_next_ag_holds_data) {
    Xfs fs(512, 4100, 4100 * 2);  // no multiple of the chunk
    fs.free[0] = {{100, 4000}};
    fs.free[1] = {{16, 4084}};
    expect_true_map(fs);
}

TEST(xfs_reader, header_is_read_from_byte_512_whatever_the_sector_size) {
    for (const std::uint16_t sector : {512, 4096}) {
        Xfs fs(4096, 4096, 4096 * 2);
        fs.sector_size = sector;
        fs.free[0] = {{100, 3000}};
        expect_true_map(fs);
        XfsDisk disk(fs);
        fail_bytes(disk, fs.at(1, 0) + 512, 512);
        expect_refused(disk, kXfs,
                       "xfs_reader_init(): Failed to read AGF of AG 1 of hdd(8, 16): rc=-5");
    }
}

TEST(xfs_reader, recognised_file_system_is_described_at_level_2) {
    Xfs fs(2048, 4096, 4096 + 2000);
    fs.free[1] = {{50, 70}};
    XfsDisk disk(fs);
    for (const char *text :
         {"xfs_reader_init(): Detected XFS on hdd(8, 16)", "   magic=0x58465342",
          "   blocksize=2048", "   sectsize=512", "   AG size=4096 blocks", "   AG count=2",
          "      AGF[0]: roots=(4, 3), levels=(1, 1), freeblks=0, length=4096",
          "      AGF[1]: roots=(4, 3), levels=(1, 1), freeblks=70, length=2000"})
        expect_level(disk, 2, text, probe_xfs);
    on_disk(disk, [](os_bdev *bdev) {
        std::int32_t block_size = 0;
        (void)xfs_reader_destroy(xfs_reader_init(bdev, &block_size));
        EXPECT_EQ(block_size, 2048);
    });
}

TEST(xfs_reader, another_magic_is_another_file_system) {
    XfsDisk disk(many_extents());
    patch_be(disk, 0, 0x58465343, 4);
    expect_level(disk, 3, "xfs_reader_init(): hdd(8, 16) doesn't have XFS.",
                 [](os_bdev *bdev) { EXPECT_EQ(xfs_reader_init(bdev, nullptr), nullptr); });
}

TEST(xfs_reader, superblocks_that_cannot_be_read_are_told) {
    const Xfs fs = many_extents();
    XfsDisk disk(fs);
    fail_bytes(disk, 0, 512);
    expect_refused(disk, kXfs,
                   "xfs_reader_init(): Failed to read Super Block of hdd(8, 16): rc=-5");
    disk.disk.heal();
    fail_bytes(disk, fs.at(1, 0), 512);
    expect_refused(disk, kXfs,
                   "xfs_reader_init(): Failed to read Super Block of AG 1 of hdd(8, 16): rc=-5");
}

TEST(xfs_reader, ag_with_another_magic_is_refused) {
    const Xfs fs = many_extents();
    XfsDisk disk(fs);
    patch_be(disk, fs.at(1, 0), 0x58465300, 4);
    expect_refused(disk, kXfs,
                   "xfs_reader_init(): AG 1 of hdd(8, 16) has incorrect SB magic number: "
                   "0x58465300 instead of 0x58465342.");
    put(disk, fs.pieces());
    patch_be(disk, fs.header_at(1), 0x12345678, 4);
    expect_refused(disk, kXfs,
                   "xfs_reader_init(): Incorrect AGF magic of AG 1 of hdd(8, 16): 0x12345678 "
                   "instead of 0x58414746");
}

TEST(xfs_reader, sizes_that_do_not_fit_are_refused) {
    const Xfs fs = many_extents();
    const auto message = [](std::uint32_t ags, std::uint32_t blocks, std::uint32_t size) {
        return "xfs_reader_init(): hdd(8, 16) can't have " + std::to_string(ags) + " AGs of " +
               std::to_string(blocks) + " blocks of " + std::to_string(size) + " bytes.";
    };
    for (const std::uint32_t size : {0u, 1u, 256u, 513u, 0x20000u, 0x80000000u}) {
        XfsDisk disk(fs);
        patch_be(disk, 4, size, 4);
        expect_refused(disk, kXfs, message(fs.ags, fs.ag_blocks, size));
    }
    for (const std::uint32_t blocks : {0u, 0xffffffffu, 1u}) {
        XfsDisk disk(fs);
        patch_be(disk, 84, blocks, 4);
        expect_refused(disk, kXfs, message(fs.ags, blocks, fs.block_size));
    }
    for (const std::uint32_t ags : {0u, 1u, 0xffffffffu}) {
        XfsDisk disk(fs);
        patch_be(disk, 88, ags, 4);
        expect_refused(disk, kXfs, message(ags, fs.ag_blocks, fs.block_size));
    }
}

TEST(xfs_reader, ag_of_another_length_than_the_superblock_tells_is_refused) {
    const Xfs fs = many_extents();
    for (const std::uint32_t ag : {0u, fs.ags - 1})
        for (const std::uint32_t length : {0u, fs.length(ag) - 1, fs.length(ag) + 1, 0xffffffffu}) {
            XfsDisk disk(fs);
            patch_be(disk, fs.header_at(ag) + 12, length, 4);
            expect_refused(disk, kXfs,
                           "xfs_reader_init(): AG " + std::to_string(ag) +
                               " of hdd(8, 16) can't have " + std::to_string(length) + " blocks.");
        }
}

TEST(xfs_reader, arguments_of_a_read_are_checked) {
    XfsDisk disk(Xfs(4096, 4096, 4096));
    expect_arguments_checked(disk, kXfs, "xfs_reader_read", 4096);
}

TEST(xfs_reader, init_without_memory_gives_nothing_and_keeps_nothing) {
    Xfs fs(512, 4096, 8192);
    XfsDisk disk(fs);
    expect_no_memory_is_survived(disk, kXfs, 8);
    const std::pair<unsigned, const char *> steps[] = {
        {1, "xfs_reader_init(): Memory allocation failed"},
        {2, "xfs_reader_init(): Memory allocation failed."},
        {5, "xfs_reader_init(): Memory allocation failed."},
        {6, "xfs_reader_init(): Memory allocation failed."},
        {7, "xfs_reader_init(): Memory allocation failed."}};
    for (const auto &[n, text] : steps)
        on_disk(disk, [n = n, text = text](os_bdev *bdev) {
            sim::fail_nth(sim::Fault::kAlloc, n);
            EXPECT_EQ(xfs_reader_init(bdev, nullptr), nullptr);
            EXPECT_TRUE(logged_error(text)) << whole_log();
        });
}

TEST(xfs_find_leaf, descends_to_the_leaf_that_may_hold_the_target) {
    Xfs fs = many_extents();
    fs.per_leaf = 5;
    fs.per_node = 9;
    XfsDisk disk(fs);
    on_reader(disk, kXfs, [&](void *context) {
        auto *ctx = static_cast<xfs_reader *>(context);
        const auto levels = fs.tree(1);
        for (std::size_t e = 0; e < fs.free[1].size(); ++e) {
            const std::uint32_t target = fs.free[1][e].start + (e % 2);
            ASSERT_EQ(xfs_find_leaf(ctx, target, fs.ag_blocks, fs.root(1)), 0);
            const Bytes leaf(ctx->node, ctx->node + fs.block_size);
            ASSERT_EQ(leaf, fs.node(1, 0, e / fs.per_leaf)) << target;
        }
        // Before the first key the first child is taken.
        ASSERT_EQ(xfs_find_leaf(ctx, 0, fs.ag_blocks, fs.root(1)), 0);
        EXPECT_EQ(Bytes(ctx->node, ctx->node + fs.block_size), fs.node(1, 0, 0));
    });
}

TEST(xfs_find_leaf, node_without_keys_leads_to_its_first_child) {
    Xfs fs = many_extents();
    XfsDisk disk(fs);
    patch_be(disk, fs.node_at(0, 1, 0) + 6, 0, 2);
    on_reader(disk, kXfs, [&](void *context) {
        auto *ctx = static_cast<xfs_reader *>(context);
        ASSERT_EQ(xfs_find_leaf(ctx, 4000, 0, fs.root(0)), 0);
        EXPECT_EQ(Bytes(ctx->node, ctx->node + fs.block_size), fs.node(0, 0, 0));
    });
}

}  // namespace
