// tests/images/other_images.cpp: file systems that are not, or not wholly, those that the readers know
// SPDX-License-Identifier: GPL-2.0-only
//
// What docs/compatibility.md promises: the map is not valid, or it calls no block free that is in use.
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "tests/images/image_check.h"
#include "tests/images/references.h"

namespace {

using namespace images;

constexpr std::uint64_t kMiB = 1u << 20;

// No block that the tool calls used is free in the map.
void expect_no_block_free_wrongly(const Map &map, const Reference &reference) {
    ASSERT_LE(reference.used.size(), map.used.size());
    for (std::size_t b = 0; b < reference.used.size(); ++b)
        ASSERT_TRUE(map.used[b] || !reference.used[b]) << "block " << b;
}

void expect_no_map(const std::string &image, const std::string &reason) {
    const Map map = map_of(image, 65536);
    EXPECT_FALSE(map.valid);
    for (const bool used : map.used)
        ASSERT_TRUE(used);
    EXPECT_GE(logged(reason), 1u) << reason;
}

class OtherImages : public ::testing::Test {
  protected:
    std::string make(std::uint64_t bytes, const std::string &command) {
        const std::string image = folder_ / "other.img";
        make_image(image, bytes);
        run(command + " " + image);
        return image;
    }
    Folder folder_;
};

TEST_F(OtherImages, ext4_with_its_default_features_has_no_map) {
    if (!have("mkfs.ext4"))
        GTEST_SKIP() << "e2fsprogs is not installed";
    expect_no_map(make(64 * kMiB, "mkfs.ext4 -q -F -O 64bit"),
                  "has features that make its bitmaps unreadable");
}

TEST_F(OtherImages, ext4_features_that_change_the_bitmaps_leave_no_map) {
    if (!have("mke2fs"))
        GTEST_SKIP() << "e2fsprogs is not installed";
    const std::string reason = "has features that make its bitmaps unreadable";
    expect_no_map(make(64 * kMiB, "mke2fs -q -F -t ext4 -O ^64bit,bigalloc"), reason);
    expect_no_map(make(64 * kMiB, "mke2fs -q -F -O journal_dev"), "is corrupt");
    expect_no_map(make(64 * kMiB, "mke2fs -q -F -t ext4 -O ^64bit,meta_bg,^resize_inode"),
                  "we don't support ext2/ext3 with meta block groups");
}

// Without descriptors of 64 bytes ext4 keeps its bitmaps as ext3 does; groups whose bitmap was never
// written count as full.
TEST_F(OtherImages, ext4_with_small_descriptors_is_never_called_free_wrongly) {
    if (!have("mke2fs") || !have("dumpe2fs"))
        GTEST_SKIP() << "e2fsprogs is not installed";
    std::string files = " -d /usr/include/linux";
    for (const char *features :
         {"", ",^metadata_csum,uninit_bg", ",^metadata_csum", ",^flex_bg", ",inline_data", ",mmp",
          ",casefold", ",encrypt", ",quota", ",project", ",large_dir", ",ea_inode",
          ",metadata_csum_seed", ",sparse_super2"}) {
        SCOPED_TRACE(features);
        const std::string image =
            make(96 * kMiB, "mke2fs -q -F -t ext4 -b 1024" + files + " -O ^64bit" + features);
        files.clear();
        const Map map = map_of(image, 1024);
        EXPECT_TRUE(map.valid);
        expect_no_block_free_wrongly(map, dumpe2fs(image));
    }
}

TEST_F(OtherImages, xfs_with_checksums_has_no_map) {
    if (!have("mkfs.xfs"))
        GTEST_SKIP() << "xfsprogs is not installed";
    for (const char *sector : {"512", "4096"}) {
        const std::string image =
            make(320 * kMiB, std::string("mkfs.xfs -q -f -m crc=1 -s size=") + sector);
        expect_no_map(image, sector == std::string("512") ? "Invalid B+tree node block magic"
                                                          : "Incorrect AGF magic of AG 0");
    }
}

TEST_F(OtherImages, reiserfs_of_another_format_or_with_a_journal_elsewhere_has_no_map) {
    if (!have("mkreiserfs"))
        GTEST_SKIP() << "reiserfsprogs is not installed";
    const std::string none = "Cannot recognize file system";
    expect_no_map(make(100 * kMiB, "mkreiserfs -q -f -f --format 3.5"), none);
    const std::string journal = folder_ / "journal.img";
    make_image(journal, 40 * kMiB);
    expect_no_map(make(100 * kMiB, "mkreiserfs -q -f -f -j " + journal), none);
}

TEST_F(OtherImages, disks_without_a_file_system_have_no_map) {
    if (!have("mkswap"))
        GTEST_SKIP() << "util-linux is not installed";
    const std::string none = "Cannot recognize file system";
    expect_no_map(make(16 * kMiB, "true"), none);
    expect_no_map(make(16 * kMiB, "mkswap"), none);
    std::mt19937 random(3);
    const std::string image = make(16 * kMiB, "true");
    std::vector<std::uint8_t> bytes(kMiB);
    for (std::uint8_t &byte : bytes)
        byte = static_cast<std::uint8_t>(random());
    copy_over(image, 0, bytes);
    expect_no_map(image, none);
}

TEST_F(OtherImages, blocks_larger_than_a_page_have_no_map) {
    if (!have("mke2fs") || !have("mkreiserfs") || !have("mkfs.xfs"))
        GTEST_SKIP() << "e2fsprogs, reiserfsprogs or xfsprogs is not installed";
    const std::string reason = "Block size cannot be larger than page size (4096)";
    expect_no_map(make(256 * kMiB, "mke2fs -q -F -t ext2 -b 8192"), "has groups of 65528 blocks");
    expect_no_map(make(256 * kMiB, "mkreiserfs -q -f -f -b 8192"), reason);
    expect_no_map(make(320 * kMiB, "mkfs.xfs --unsupported -q -f -m crc=0,finobt=0 -b size=16384"),
                  reason);
}

// Smaller than what a reader looks at.
TEST_F(OtherImages, disks_of_a_few_sectors_have_no_map) {
    for (const std::uint64_t bytes : {512u, 1024u, 1536u, 4096u, 65536u, 66048u})
        expect_no_map(make(bytes, "true"), "Cannot recognize file system");
}

}  // namespace
