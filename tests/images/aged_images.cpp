// tests/images/aged_images.cpp: ext2 and ext3 that a kernel has filled and thinned out
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "driver/fsreaders/ext2_reader.h"
#include "tests/images/image_check.h"
#include "tests/images/mounted.h"
#include "tests/images/references.h"

namespace {

using namespace images;

constexpr trak_fs_reader kExt{ext2_reader_init, ext2_reader_read, ext2_reader_destroy};
constexpr std::uint64_t kMiB = 1u << 20;

struct Aged {
    const char *what;
    const char *kind;
    std::uint64_t bytes;
    const char *options;
};

void PrintTo(const Aged &aged, std::ostream *out) {
    *out << aged.what;
}

// False where the file system is full.
bool write_file(const std::string &path, std::size_t size) {
    std::ofstream file(path, std::ios::binary);
    const std::vector<char> bytes(65536, 'x');
    for (; size > 0 && file.good(); size -= std::min(size, bytes.size()))
        file.write(bytes.data(), static_cast<std::streamsize>(std::min(size, bytes.size())));
    file.close();
    return file.good();
}

std::string file_name(const std::string &folder, int number) {
    return folder + "/d" + std::to_string(number % 5) + "/f" + std::to_string(number);
}

// Many small files, every second one deleted, large ones written into the gaps, and some of those cut.
void age(const std::string &folder, std::uint64_t bytes) {
    std::mt19937 random(static_cast<std::uint32_t>(bytes >> 10));
    for (int d = 0; d < 5; ++d)
        std::filesystem::create_directory(folder + "/d" + std::to_string(d));
    std::uint64_t written = 0;
    int files = 0;
    while (written < bytes / 3 && files < 2500) {
        const std::size_t size = 100 + random() % 14000;
        written += size;
        if (!write_file(file_name(folder, files++), size))
            break;
    }
    sync();
    for (int n = 0; n < files; n += 2)
        std::filesystem::remove(file_name(folder, n));
    for (int n = 0; n < 4; ++n)
        if (!write_file(folder + "/large" + std::to_string(n), bytes / 20))
            break;
    sync();
    std::filesystem::resize_file(folder + "/large0", bytes / 50);
    std::filesystem::remove(folder + "/large1");
}

class AgedImages : public ::testing::TestWithParam<Aged> {
  protected:
    void SetUp() override {
        if (!have("mke2fs") || !have("dumpe2fs") || !have("e2fsck"))
            GTEST_SKIP() << "e2fsprogs is not installed";
        if (!may_mount())
            GTEST_SKIP() << "mounting takes root";
    }
    Folder folder_;
};

TEST_P(AgedImages, every_chunk_is_what_dumpe2fs_says_of_its_blocks) {
    const Aged &aged = GetParam();
    const std::string image = folder_ / "aged.img";
    make_image(image, aged.bytes);
    run(std::string("mke2fs -q -F -t ") + aged.kind + " " + aged.options + " " + image);
    {
        const Mounted mounted(image, folder_ / "mnt", std::string("-t ") + aged.kind);
        age(folder_ / "mnt", aged.bytes);
    }
    run("e2fsck -fn " + image);
    const Reference reference = dumpe2fs(image);
    EXPECT_GT(turns(reference), aged.bytes / kMiB * 4) << "it is hardly aged";
    compare(image, kExt, reference);
    EXPECT_EQ(self_test(image), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Aged, AgedImages,
    ::testing::Values(
        Aged{"ext2_1k_1MiB", "ext2", kMiB, "-b 1024"},
        Aged{"ext2_1k_every_group_with_a_superblock", "ext2", 40 * kMiB,
             "-b 1024 -O ^sparse_super,^resize_inode"},
        Aged{"ext2_2k_short_last_group", "ext2", 40 * kMiB + 2048 * 77, "-b 2048 -O sparse_super"},
        Aged{"ext2_4k_one_group", "ext2", 48 * kMiB, "-b 4096"},
        Aged{"ext3_1k_one_group", "ext3", 8 * kMiB, "-b 1024"},
        Aged{"ext3_1k_short_last_group", "ext3", 24 * kMiB + 1024 * 301, "-b 1024 -O resize_inode"},
        Aged{"ext3_2k_no_resize", "ext3", 64 * kMiB, "-b 2048 -O ^resize_inode"},
        Aged{"ext3_4k_two_groups", "ext3", 160 * kMiB + 4096 * 77, "-b 4096 -J size=4"}),
    [](const auto &info) { return info.param.what; });

}  // namespace
