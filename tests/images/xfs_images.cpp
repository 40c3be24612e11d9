// tests/images/xfs_images.cpp: XFS made by mkfs.xfs, beside what xfs_db says of it
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "driver/fsreaders/xfs_reader.h"
#include "tests/images/image_check.h"
#include "tests/images/references.h"

namespace {

using namespace images;

constexpr trak_fs_reader kXfs{xfs_reader_init, xfs_reader_read, xfs_reader_destroy};
constexpr std::uint64_t kMiB = 1u << 20;

class XfsImages : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!have("mkfs.xfs") || !have("xfs_db"))
            GTEST_SKIP() << "xfsprogs is not installed";
    }
    // With some files in it, so that extents are not the same in all groups.
    std::string make(std::uint64_t bytes, const std::string &options) {
        const std::string image = folder_ / "xfs.img";
        make_image(image, bytes);
        const std::string files = folder_ / "files";
        std::ofstream(files) << "/dev/null\n0 0\nd--755 0 0\na ---644 0 0 /bin/bash\n"
                             << "d d--755 0 0\nb ---644 0 0 /bin/ls\n$\n$\n";
        run("mkfs.xfs --unsupported -q -f -m crc=0,finobt=0 -p " + files + " " + options + " " +
            image);
        return image;
    }
    void compare_made(std::uint64_t bytes, const std::string &options) {
        const std::string image = make(bytes, options);
        compare(image, kXfs, xfs_db(image));
    }
    Folder folder_;
};

TEST_F(XfsImages, one_group_is_what_xfs_db_says) {
    compare_made(400 * kMiB, "-d agcount=1");
}

TEST_F(XfsImages, four_groups_are_what_xfs_db_says) {
    compare_made(400 * kMiB, "-d agcount=4");
}

TEST_F(XfsImages, thirty_two_groups_and_a_short_last_one_are_what_xfs_db_says) {
    compare_made(601 * kMiB, "-d agcount=32");
}

TEST_F(XfsImages, every_block_size_is_what_xfs_db_says) {
    for (const char *size : {"512", "1024", "2048", "4096"})
        compare_made(320 * kMiB, std::string("-d agcount=4 -b size=") + size);
}

// With sectors of 4096 bytes the header of a group is not where this reader looks for it.
TEST_F(XfsImages, sectors_of_4096_bytes_are_refused) {
    expect_refused(make(400 * kMiB, "-s size=4096"), kXfs);
    EXPECT_EQ(logged("Incorrect AGF magic of AG 0"), 1u);
}

// A group that states another number of free blocks than its tree holds is not believed.
TEST_F(XfsImages, a_tree_that_disagrees_with_its_group_ends_the_read) {
    const std::string image = make(400 * kMiB, "-d agcount=4");
    std::vector<std::uint8_t> free_blocks = bytes_of(image, 512 + 52 + 3, 1);
    free_blocks[0] ^= 1;
    copy_over(image, 512 + 52 + 3, free_blocks);
    EXPECT_LT(self_test(image), 0);
    EXPECT_GE(logged("another number of free blocks"), 1u);
}

// ./run vm names an image that a kernel has aged: it has trees of height 2 and more.
TEST(Inner, an_aged_xfs_is_what_its_tool_says) {
    const char *name = std::getenv("TRAK_IMAGE");
    ASSERT_NE(name, nullptr);
    const std::string image = name;
    const std::uint64_t groups =
        field(run("xfs_db -r -c 'sb 0' -c 'p agcount' " + image), "agcount");
    std::uint64_t height = 0;
    for (std::uint64_t ag = 0; ag < groups; ++ag)
        height = std::max(height, field(run("xfs_db -r -c 'agf " + std::to_string(ag) +
                                            "' -c 'p bnolevel' " + image),
                                        "bnolevel"));
    EXPECT_GE(height, 2u);
    compare(image, kXfs, xfs_db(image));
    EXPECT_EQ(self_test(image), 0);
}

}  // namespace
