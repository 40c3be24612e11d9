// tests/unit/readers/xfs_damage_test.cpp: trees of free extents that are damaged
// SPDX-License-Identifier: GPL-2.0-only
//
// A read of a damaged AG fails, or calls no block free that no extent of the undamaged tree covers.
#include "tests/unit/readers/xfs_world.h"

namespace {

using namespace xfs_world;

constexpr std::size_t kLevel = 4, kRecords = 6, kRight = 12;

Xfs tall() {
    Xfs fs = many_extents();
    fs.per_leaf = 5;
    fs.per_node = 9;
    return fs;
}

// Reads all AGs; the read must fail with this error in the log.
void expect_read_fails(Machine &disk, const Xfs &fs, const std::string &error, int rc = -EINVAL) {
    on_reader(disk, kXfs, [&](void *context) {
        int result = 0;
        (void)read_map(kXfs, context, 0, fs.block_size, static_cast<std::int32_t>(fs.blocks),
                       &result);
        EXPECT_EQ(result, rc);
        EXPECT_TRUE(logged_error(error)) << error << "\n" << whole_log();
    });
}
void expect_damaged(Machine &disk, const Xfs &fs, const std::string &what,
                    const std::string &function = "xfs_reader_read") {
    expect_read_fails(disk, fs, function + "(): Damaged B+tree of free extents: " + what + ".");
}

std::string bad_magic(const std::string &function) {
    return function + "(): Invalid B+tree node block magic: 0x41425443 instead of 0x41425442";
}

TEST(xfs_tree, node_with_another_magic_fails_the_read) {
    const Xfs fs = tall();
    for (const std::size_t level : {0, 1, 2}) {
        XfsDisk disk(fs);
        patch_be(disk, fs.node_at(1, level, 0), 0x41425443, 4);
        expect_read_fails(disk, fs, bad_magic("xfs_find_leaf"));
    }
    XfsDisk disk(fs);
    patch_be(disk, fs.node_at(1, 0, 3), 0x41425443, 4);
    expect_read_fails(disk, fs, bad_magic("xfs_reader_read"));
}

TEST(xfs_tree, node_that_cannot_be_read_fails_the_read) {
    const Xfs fs = tall();
    const auto message = [&](const std::string &function, std::uint64_t at) {
        return function + "(): Failed to read AGF node from block " +
               std::to_string(at / fs.block_size) + ": rc=-5";
    };
    for (const std::size_t level : {0, 1, 2}) {
        XfsDisk disk(fs);
        fail_bytes(disk, fs.node_at(1, level, 0), 512);
        expect_read_fails(disk, fs, message("xfs_find_leaf", fs.node_at(1, level, 0)), -EIO);
    }
    XfsDisk disk(fs);
    fail_bytes(disk, fs.node_at(1, 0, 3), 512);
    expect_read_fails(disk, fs, message("xfs_reader_read", fs.node_at(1, 0, 3)), -EIO);
    // The other AGs are read, and this one too when its disk is back.
    on_reader(disk, kXfs, [&](void *context) {
        (void)read_map(kXfs, context, 0, 512, 8192);
        disk.disk.heal();
        expect_extents(context, fs);
    });
}

TEST(xfs_tree, root_beyond_the_disk_fails_the_read) {
    const Xfs fs = tall();
    for (const std::uint32_t root : {0xffffffffu, 0x7fffffffu, 100000u}) {
        XfsDisk disk(fs);
        patch_be(disk, fs.header_at(0) + 16, root, 4);
        on_reader(disk, kXfs, [&](void *context) {
            int rc = 0;
            (void)read_map(kXfs, context, 0, 512, 100, &rc);
            EXPECT_LT(rc, 0);
        });
    }
}

TEST(xfs_tree, node_that_points_to_itself_or_up_fails_the_read) {
    const Xfs fs = tall();
    for (const std::size_t level : {1, 2}) {
        XfsDisk disk(fs);
        patch_be(disk, fs.node_at(0, 1, 0) + fs.pointer(0), fs.tree(0)[level][0].block, 4);
        expect_damaged(disk, fs, "levels that do not fall", "xfs_find_leaf");
    }
    XfsDisk disk(fs);
    patch_be(disk, fs.node_at(0, 2, 0) + kLevel, 0xffff, 2);
    expect_damaged(disk, fs, "levels that do not fall", "xfs_find_leaf");
}

TEST(xfs_tree, circle_of_siblings_fails_the_read) {
    const Xfs fs = tall();
    for (const std::size_t to : {3, 2, 0}) {
        XfsDisk disk(fs);
        patch_be(disk, fs.node_at(0, 0, 3) + kRight, fs.tree(0)[0][to].block, 4);
        expect_damaged(disk, fs, "extents that do not rise");
    }
}

TEST(xfs_tree, circle_of_empty_leaves_fails_the_read) {
    const Xfs fs = tall();
    XfsDisk disk(fs);
    patch_be(disk, fs.node_at(0, 0, 3) + kRecords, 0, 2);
    patch_be(disk, fs.node_at(0, 0, 3) + kRight, fs.tree(0)[0][3].block, 4);
    expect_damaged(disk, fs, "a chain of leaves without end");
}

TEST(xfs_tree, sibling_that_is_no_leaf_fails_the_read) {
    const Xfs fs = tall();
    XfsDisk disk(fs);
    patch_be(disk, fs.node_at(0, 0, 3) + kRight, fs.root(0), 4);
    expect_damaged(disk, fs, "a sibling that is no leaf");
}

TEST(xfs_tree, extents_that_do_not_rise_fail_the_read) {
    const Xfs fs = tall();
    XfsDisk disk(fs);
    patch_be(disk, fs.node_at(0, 0, 2) + Xfs::record(1), fs.free[0][10].start, 4);  // twice
    expect_damaged(disk, fs, "extents that do not rise");
    put(disk, fs.pieces());
    patch_be(disk, fs.node_at(0, 0, 2) + Xfs::record(1) + 4, 0, 4);  // of no block
    expect_damaged(disk, fs, "extents that do not rise");
}

TEST(xfs_tree, extents_beyond_the_ag_fail_the_read) {
    const Xfs fs = tall();
    for (const std::uint32_t ag : {0u, 2u}) {
        const std::size_t last = fs.tree(ag)[0].size() - 1;
        const std::size_t in_leaf = fs.tree(ag)[0][last].count - 1;
        for (const std::uint32_t count :
             {fs.length(ag) - fs.free[ag].back().start + 1, 0x80000000u, 0xffffffffu}) {
            XfsDisk disk(fs);
            patch_be(disk, fs.node_at(ag, 0, last) + Xfs::record(in_leaf) + 4, count, 4);
            expect_damaged(disk, fs, "an extent beyond the AG");
        }
    }
}

TEST(xfs_tree, extent_that_holds_the_header_of_the_ag_fails_the_read) {
    Xfs fs = tall();
    fs.free[1].insert(fs.free[1].begin(), {0, 1});
    XfsDisk disk(fs);
    expect_damaged(disk, fs, "extents that do not rise");
}

TEST(xfs_tree, another_number_of_free_blocks_than_the_header_fails_the_read) {
    const std::string what = "another number of free blocks than its AG states";
    const Xfs fs = tall();
    XfsDisk disk(fs);
    patch_be(disk, fs.header_at(2) + 52, 1, 4);
    expect_damaged(disk, fs, what);
    put(disk, fs.pieces());
    patch_be(disk, fs.node_at(0, 0, 2) + Xfs::record(1) + 4, fs.free[0][11].count + 1, 4);
    expect_damaged(disk, fs, what);
    put(disk, fs.pieces());
    patch_be(disk, fs.node_at(0, 0, 2) + kRecords, 3, 2);  // two records less
    expect_damaged(disk, fs, what);
    put(disk, fs.pieces());
    patch_be(disk, fs.node_at(0, 0, 2) + kRight, Xfs::kNone, 4);  // leaves left out
    expect_damaged(disk, fs, what);
}

TEST(xfs_tree, records_beyond_what_a_node_has_room_for_are_not_read) {
    for (const std::uint32_t records : {63u, 0x8000u, 0xffffu}) {
        const Xfs fs = tall();
        for (const std::size_t level : {0, 1, 2}) {
            XfsDisk disk(fs);
            patch_be(disk, fs.node_at(0, level, 0) + kRecords, records, 2);
            on_reader(disk, kXfs, [&](void *context) {
                int rc = 0;
                const Bytes bits = read_map(kXfs, context, 0, 512, 8192, &rc);
                EXPECT_EQ(rc < 0, level == 0);  // free space that is none
                for (std::uint32_t b = 0; rc == 0 && b < 8192; ++b)
                    ASSERT_TRUE(bit(bits, b) || fs.is_free(b, 1)) << b;
            });
        }
    }
}

TEST(xfs_tree, leaf_outside_of_the_chain_is_not_believed) {
    // An inner node leads to a leaf that was given up and says other than the chain does.
    const Xfs fs = tall();
    Bytes stale = fs.node(0, 0, 4);
    for (std::size_t k = 0; k < 5; ++k) {
        put_be(stale, Xfs::record(k), fs.free[0][20 + k].start, 4);
        put_be(stale, Xfs::record(k) + 4, 21, 4);
    }
    XfsDisk disk(fs);
    const std::uint32_t block = 590;
    disk.disk.write(fs.at(0, block), stale);
    patch_be(disk, fs.node_at(0, 1, 0) + fs.pointer(4), block, 4);
    on_reader(disk, kXfs, [&](void *context) {
        const std::uint32_t first = fs.free[0][20].start;
        int rc = 0;
        const Bytes bits = read_map(kXfs, context, first, 512, 100, &rc);
        for (std::uint32_t b = 0; rc == 0 && b < 100; ++b)
            ASSERT_EQ(bit(bits, b), !fs.is_free(first + b, 1)) << first + b;
    });
}

TEST(xfs_tree, every_single_changed_field_fails_the_read_or_frees_nothing) {
    Xfs fs(512, 1024, 1024);
    for (std::uint32_t at = 100; at < 1000; at += 30)
        fs.free[0].push_back({at, 1 + at % 13});
    fs.per_leaf = 4;
    fs.per_node = 3;
    const std::uint32_t values[] = {0, 1, 2, 5, 9, 100, 0x7fffffff, 0xffffffff};
    const auto levels = fs.tree(0);
    XfsDisk disk(fs);
    on_disk(
        disk,
        [&](os_bdev *bdev) {
            unsigned failed = 0;
            for (std::size_t level = 0; level < levels.size(); ++level)
                for (std::size_t i = 0; i < levels[level].size(); ++i)
                    for (std::size_t field = 0; field < 512; field += 4) {
                        // Nothing is looked at between the records and the pointers.
                        if (field > 48 && field < fs.pointer(0))
                            continue;
                        if (field > fs.pointer(4))
                            continue;
                        // An extent that was moved can't be told from a true one.
                        if (level == 0 && field >= 16 && field % 8 == 0)
                            continue;
                        for (const std::uint32_t value : values) {
                            patch_be(disk, fs.node_at(0, level, i) + field, value, 4);
                            void *context = xfs_reader_init(bdev, nullptr);
                            ASSERT_NE(context, nullptr);
                            for (const std::uint32_t first : {0u, 500u}) {
                                int rc = 0;
                                const Bytes bits = read_map(kXfs, context, first, 512, 500, &rc);
                                failed += rc < 0;
                                for (std::uint32_t b = 0; rc == 0 && b < 500; ++b)
                                    ASSERT_TRUE(bit(bits, b) || fs.is_free(first + b, 1))
                                        << "level " << level << " node " << i << " field " << field
                                        << " value " << value << " block " << first + b;
                            }
                            (void)xfs_reader_destroy(context);
                        }
                        disk.disk.write(fs.node_at(0, level, i), fs.node(0, level, i));
                    }
            EXPECT_GT(failed, 100u);
        },
        0);
}

}  // namespace
