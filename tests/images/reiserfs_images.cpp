// tests/images/reiserfs_images.cpp: ReiserFS made by mkreiserfs, beside what debugreiserfs says of it
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "driver/fsreaders/reiserfs_reader.h"
#include "tests/images/image_check.h"
#include "tests/images/references.h"

namespace {

using namespace images;

constexpr trak_fs_reader kReiser{reiserfs_reader_init, reiserfs_reader_read,
                                 reiserfs_reader_destroy};
constexpr std::uint64_t kMiB = 1u << 20;
constexpr std::uint64_t kSuper = 65536;

class ReiserfsImages : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!have("mkreiserfs") || !have("debugreiserfs"))
            GTEST_SKIP() << "reiserfsprogs is not installed";
    }
    std::string make(std::uint64_t bytes, const std::string &options) {
        const std::string image = folder_ / "reiser.img";
        make_image(image, bytes);
        run("mkreiserfs -q -f " + options + " " + image);
        return image;
    }
    Folder folder_;
};

TEST_F(ReiserfsImages, one_bitmap_block_is_what_debugreiserfs_says) {
    const std::string image = make(100 * kMiB, "");
    compare(image, kReiser, debugreiserfs(image));
    EXPECT_EQ(self_test(image), 0);
}

TEST_F(ReiserfsImages, several_bitmap_blocks_are_what_debugreiserfs_says) {
    const std::string image = make(700 * kMiB + 4096 * 5, "");
    compare(image, kReiser, debugreiserfs(image));
    EXPECT_EQ(self_test(image), 0);
}

TEST_F(ReiserfsImages, other_block_sizes_are_what_debugreiserfs_says) {
    for (const char *size : {"512", "1024", "2048"}) {
        const std::string image = make(120 * kMiB, std::string("-b ") + size);
        compare(image, kReiser, debugreiserfs(image));
    }
}

TEST_F(ReiserfsImages, the_3_5_format_is_not_recognised) {
    const std::string image = make(100 * kMiB, "--format 3.5");
    expect_refused(image, kReiser);
    EXPECT_EQ(logged("can't have"), 0u);
}

TEST_F(ReiserfsImages, a_free_count_that_is_off_by_one_is_refused) {
    const std::string image = make(100 * kMiB, "");
    std::vector<std::uint8_t> count = bytes_of(image, kSuper + 4, 1);
    count[0] ^= 1;
    copy_over(image, kSuper + 4, count);
    expect_refused(image, kReiser);
    EXPECT_EQ(logged("Unexpected inconsistency of ReiserFS SB"), 1u);
}

// A transaction that was not written home may have allocated blocks that the bitmaps don't show.
TEST_F(ReiserfsImages, a_journal_to_replay_is_refused) {
    const std::string image = make(100 * kMiB, "");
    const std::vector<std::uint8_t> start = bytes_of(image, kSuper + 12, 4);
    const std::uint64_t block = start[0] | start[1] << 8;
    copy_over(image, block * 4096, {1, 0, 0, 0, 1, 0, 0, 0});
    copy_over(image, block * 4096 + 4096 - 12, {'R', 'e', 'I', 's', 'E', 'r', 'L', 'B'});
    expect_refused(image, kReiser);
    EXPECT_EQ(logged("must be replayed first"), 1u);
}

// ./run vm names an image that a kernel has aged.
TEST(Inner, an_aged_reiserfs_is_what_its_tool_says) {
    const char *image = std::getenv("TRAK_IMAGE");
    ASSERT_NE(image, nullptr);
    const Reference reference = debugreiserfs(image);
    std::size_t runs = 0;
    for (std::size_t b = 1; b < reference.used.size(); ++b)
        runs += reference.used[b] != reference.used[b - 1];
    EXPECT_GE(runs, 200u) << "the image is hardly aged";
    compare(image, kReiser, reference);
    EXPECT_EQ(self_test(image), 0);
}

}  // namespace
