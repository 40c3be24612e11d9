// tests/images/ext_images.cpp: ext2 and ext3 made by mke2fs, beside what dumpe2fs says of them
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <sstream>

#include "driver/fsreaders/ext2_reader.h"
#include "tests/images/image_check.h"
#include "tests/images/references.h"

namespace {

using namespace images;

constexpr trak_fs_reader kExt{ext2_reader_init, ext2_reader_read, ext2_reader_destroy};

struct Made {
    const char *what;
    std::uint64_t bytes;
    const char *options;
};

// How a test of it is called.
void PrintTo(const Made &made, std::ostream *out) {
    *out << made.what;
}

class ExtImages : public ::testing::TestWithParam<Made> {
  protected:
    void SetUp() override {
        if (!have("mke2fs") || !have("dumpe2fs") || !have("debugfs"))
            GTEST_SKIP() << "e2fsprogs is not installed";
    }
    Folder folder_;
};

constexpr std::uint64_t kMiB = 1u << 20;
constexpr std::uint64_t kGiB = 1u << 30;

TEST_P(ExtImages, every_chunk_is_what_dumpe2fs_says_of_its_blocks) {
    const std::string image = folder_ / "ext.img";
    make_image(image, GetParam().bytes);
    run(std::string("mke2fs -q -F ") + GetParam().options + " " + image);
    compare(image, kExt, dumpe2fs(image));
}

INSTANTIATE_TEST_SUITE_P(
    Made, ExtImages,
    ::testing::Values(Made{"ext2_1k_1MiB", kMiB, "-t ext2 -b 1024"},
                      Made{"ext2_1k_100MiB", 100 * kMiB,
                           "-t ext2 -b 1024 -O ^sparse_super,^resize_inode"},
                      Made{"ext2_2k_64MiB", 64 * kMiB, "-t ext2 -b 2048"},
                      Made{"ext2_4k_one_group", 100 * kMiB, "-t ext2 -b 4096"},
                      Made{"ext2_4k_short_last_group", 300 * kMiB + 4096 * 77, "-t ext2 -b 4096"},
                      Made{"ext3_1k_40MiB", 40 * kMiB, "-t ext3 -b 1024"},
                      Made{"ext3_4k_1GiB", kGiB, "-t ext3 -b 4096 -O resize_inode"},
                      Made{"ext3_4k_no_resize", kGiB, "-t ext3 -b 4096 -O ^resize_inode"}),
    [](const auto &info) { return info.param.what; });

// Files are put in and every second one is taken out again, without a mount.
TEST_F(ExtImages, a_filled_and_thinned_image_is_what_dumpe2fs_says) {
    for (const char *block : {"1024", "2048", "4096"}) {
        const std::string image = folder_ / "aged.img";
        make_image(image, 96 * kMiB);
        run(std::string("mke2fs -q -F -t ext3 -b ") + block + " -d /usr/include/linux " + image);
        std::string commands;
        std::istringstream names(run("ls /usr/include/linux"));
        int n = 0;
        for (std::string name; std::getline(names, name);)
            if (++n % 2 == 0 && name.size() > 2 && name.substr(name.size() - 2) == ".h")
                commands += "rm " + name + "\n";
        const std::string script = folder_ / "commands";
        make_image(script, 0);
        copy_over(script, 0, std::vector<std::uint8_t>(commands.begin(), commands.end()));
        run("debugfs -w -f " + script + " " + image);
        // debugfs keeps the counts; fsck is not needed for the bitmaps to be true.
        compare(image, kExt, dumpe2fs(image));
        EXPECT_EQ(self_test(image), 0);
    }
}

TEST_F(ExtImages, a_sparse_disk_of_4_TiB_is_what_dumpe2fs_says) {
    const std::string image = folder_ / "great.img";
    make_image(image, 4096 * kGiB);
    run("mke2fs -q -F -t ext3 -b 4096 -E lazy_journal_init=1 -N 65536 -J size=4 " + image);
    compare(image, kExt, dumpe2fs(image));
}

TEST_F(ExtImages, meta_block_groups_are_refused) {
    const std::string image = folder_ / "meta.img";
    make_image(image, 64 * kMiB);
    run("mke2fs -q -F -t ext2 -O meta_bg,^resize_inode " + image);
    expect_refused(image, kExt);
    EXPECT_EQ(logged("Sorry, we don't support ext2/ext3 with meta block groups."), 1u);
}

TEST_F(ExtImages, groups_of_another_size_than_a_bitmap_block_are_refused) {
    const std::string image = folder_ / "groups.img";
    make_image(image, 64 * kMiB);
    run("mke2fs -q -F -t ext2 -b 4096 -g 8192 " + image);
    expect_refused(image, kExt);
    EXPECT_EQ(logged("has groups of 8192 blocks instead of 32768."), 1u);
}

TEST_F(ExtImages, a_group_whose_free_count_disagrees_counts_as_full) {
    const std::string image = folder_ / "count.img";
    make_image(image, 300 * kMiB);
    run("mke2fs -q -F -t ext2 -b 4096 " + image);
    Reference reference = dumpe2fs(image);
    // Descriptor of group 1 of 32 bytes in block 1; its count of free blocks is at offset 12.
    std::vector<std::uint8_t> count = bytes_of(image, 4096 + 32 + 12, 2);
    count[0] ^= 1;
    copy_over(image, 4096 + 32 + 12, count);
    for (std::size_t b = 32768; b < 65536; ++b)
        reference.used[b] = true;
    compare(image, kExt, reference);
    EXPECT_GE(logged("in block group 1 is inconsistent with the bitmap"), 1u);
}

}  // namespace
