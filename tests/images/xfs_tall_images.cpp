// tests/images/xfs_tall_images.cpp: XFS whose trees of free extents have inner nodes
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <fstream>

#include "driver/fsreaders/xfs_reader.h"
#include "tests/images/image_check.h"
#include "tests/images/references.h"

namespace {

using namespace images;

constexpr trak_fs_reader kXfs{xfs_reader_init, xfs_reader_read, xfs_reader_destroy};
constexpr std::uint64_t kMiB = 1u << 20;

// With a stripe unit, inodes are placed at stripes, and files of more than what that leaves over go by
// it: thousands of them leave a gap for each chunk of inodes.
TEST(XfsTallImages, a_tree_of_two_levels_is_what_xfs_db_says) {
    if (!have("mkfs.xfs") || !have("xfs_db"))
        GTEST_SKIP() << "xfsprogs is not installed";
    const Folder folder;
    const std::string image = folder / "tall.img", content = folder / "content";
    make_image(image, 320 * kMiB);
    make_image(content, 0);
    copy_over(content, 0, std::vector<std::uint8_t>(16385, 'x'));
    std::ofstream proto(folder / "proto");
    proto << "/dev/null\n0 0\nd--755 0 0\n";
    for (int n = 0; n < 5500; ++n)
        proto << "f" << n << " ---644 0 0 " << content << "\n";
    proto << "$\n$\n";
    proto.close();
    run("mkfs.xfs --unsupported -q -f -m crc=0,finobt=0 -d agcount=1,sunit=64,swidth=64 "
        "-b size=512 -p " +
        (folder / "proto") + " " + image);
    EXPECT_GE(field(run("xfs_db -r -c 'agf 0' -c 'p bnolevel' " + image), "bnolevel"), 2u);
    compare(image, kXfs, xfs_db(image));
    EXPECT_EQ(self_test(image), 0);
}

}  // namespace
