// tests/unit/lib/bitmap_test.cpp: counting bits, whole bitmaps, and marks that are never lost
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/lib/fake_driver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <random>

namespace {

using fake::Driver;
using fake::Durable;
using fake::TempDir;

uint64_t plain_count(const std::vector<uint8_t> &bits, uint64_t count) {
    uint64_t n = 0;
    for (uint64_t i = 0; i < count; i++)
        n += bits[i / 8] >> (i % 8) & 1;
    return n;
}

TEST(bits, count_agrees_with_counting_one_by_one) {
    std::mt19937 random(1);
    for (uint64_t count : {1u, 7u, 8u, 9u, 63u, 64u, 65u, 127u, 200u, 1000u}) {
        std::vector<uint8_t> bits((count + 7) / 8);
        for (auto &byte : bits)
            byte = static_cast<uint8_t>(random());
        EXPECT_EQ(plain_count(bits, count), trak_bits_count(bits.data(), count)) << count;
    }
}

TEST(bits, runs_are_those_found_one_by_one) {
    std::mt19937 random(2);
    for (int round = 0; round < 200; round++) {
        uint64_t count = 1 + random() % 300;
        std::vector<uint8_t> bits((count + 7) / 8), rebuilt((count + 7) / 8);
        // Long runs and whole bytes too.
        for (auto &byte : bits)
            byte = random() % 3 == 0   ? 0
                   : random() % 2 == 0 ? 0xff
                                       : static_cast<uint8_t>(random());
        uint64_t from = 0, start = 0, length = 0;
        bool first = true;
        while ((length = trak_bits_run(bits.data(), count, from, &start)) > 0) {
            ASSERT_TRUE(first || start > from) << "neighbouring runs are one run";
            for (uint64_t i = start; i < start + length; i++)
                rebuilt[i / 8] |= static_cast<uint8_t>(1u << (i % 8));
            from = start + length;
            first = false;
        }
        for (uint64_t i = 0; i < count; i++)
            ASSERT_EQ(bits[i / 8] >> (i % 8) & 1, rebuilt[i / 8] >> (i % 8) & 1) << i;
    }
}

struct Bitmaps : testing::Test {
    Durable durable;
    Driver driver{durable};
    trak *t = nullptr;
    trak_bitmap bitmap = {};
    void SetUp() override {
        trak_seam seam = driver.everything();
        ASSERT_EQ(0, trak_open_fn("/nowhere", &seam, &driver, &t));
        trak_add_filter_arg arg = {};
        strcpy(arg.hdd_name, "/dev/image/a");
        strcpy(arg.bmp_dir, "/b");
        arg.minor = 3;
        arg.extent_size = 65536;
        ASSERT_EQ(0, trak_add_filter_node(t, &arg));
        ASSERT_EQ(0, trak_clr_bmp(t, 3, TRAK_BMP_INCR));
        ASSERT_EQ(0, trak_start_node(t, 3));
    }
    void TearDown() override {
        trak_bitmap_free(&bitmap);
        trak_close(t);
    }
};

TEST_F(Bitmaps, get_has_the_right_size_and_leaves_the_marks) {
    driver.write(3, 99);
    ASSERT_EQ(0, trak_bitmap_get(t, 3, TRAK_BMP_INCR, &bitmap));
    EXPECT_EQ(13u, bitmap.size);
    EXPECT_EQ(100u, bitmap.count);
    EXPECT_EQ(65536u, bitmap.unit_size);
    EXPECT_EQ(driver.dev_size, bitmap.dev_size);
    EXPECT_EQ(1u, trak_bits_count(bitmap.bits, bitmap.count));
    EXPECT_TRUE(driver.marked(3, TRAK_BMP_INCR, 99));
}

TEST_F(Bitmaps, take_clears_the_one_and_not_the_other) {
    driver.write(3, 5);
    ASSERT_EQ(0, trak_bitmap_take(t, 3, TRAK_BMP_INCR, &bitmap));
    EXPECT_EQ(1 << 5, bitmap.bits[0]);
    EXPECT_FALSE(driver.marked(3, TRAK_BMP_INCR, 5));
    EXPECT_TRUE(driver.marked(3, TRAK_BMP_DIFF, 5));
}

TEST_F(Bitmaps, take_gives_the_marks_back_when_its_answer_is_lost) {
    driver.write(3, 5);
    driver.lose = [](uint32_t code) { return code == TRAK_GET_AND_CLR_BMP ? -EFAULT : 0; };
    EXPECT_EQ(-EFAULT, trak_bitmap_take(t, 3, TRAK_BMP_INCR, &bitmap));
    EXPECT_EQ(nullptr, bitmap.bits);
    EXPECT_TRUE(driver.marked(3, TRAK_BMP_INCR, 5));
}

TEST_F(Bitmaps, take_that_was_refused_merges_nothing) {
    driver.write(3, 5);
    driver.refuse = [](uint32_t code) { return code == TRAK_GET_AND_CLR_BMP ? -ENOMEM : 0; };
    EXPECT_EQ(-ENOMEM, trak_bitmap_take(t, 3, TRAK_BMP_INCR, &bitmap));
    EXPECT_TRUE(driver.marked(3, TRAK_BMP_INCR, 5));
    EXPECT_EQ(TRAK_GET_AND_CLR_BMP, driver.codes.back());
}

TEST_F(Bitmaps, unknown_types_and_nodes_are_refused) {
    EXPECT_EQ(-EINVAL, trak_bitmap_get(t, 3, 2, &bitmap));
    EXPECT_EQ(-EINVAL, trak_bitmap_get(t, 4, TRAK_BMP_INCR, &bitmap));
    EXPECT_EQ(-EINVAL, trak_bitmap_datablocks(t, 3, 0, &bitmap));
}

TEST_F(Bitmaps, sizes_that_contradict_each_other_are_not_believed) {
    // 8001 extents, but a bitmap for 8000: a reader of `count` bits would leave the buffer.
    driver.nodes[3].bits[TRAK_BMP_INCR].resize(1000);
    driver.nodes[3].dev_size = 8001ull * 65536;
    EXPECT_EQ(-EPROTO, trak_bitmap_get(t, 3, TRAK_BMP_INCR, &bitmap));
    driver.nodes[3].bits[TRAK_BMP_DIFF].clear();
    EXPECT_EQ(-EPROTO, trak_bitmap_get(t, 3, TRAK_BMP_DIFF, &bitmap));
}

TEST_F(Bitmaps, datablocks_are_asked_for_with_the_bytes_that_they_need) {
    trak_add_snap_arg arg = {};
    arg.filter_minor = 3;
    arg.snap_minor = 4;
    arg.chunk_size = 65536;
    ASSERT_EQ(0, trak_add_snap_node(t, &arg));
    ASSERT_EQ(0, trak_start_node(t, 4));
    ASSERT_EQ(0, trak_bitmap_datablocks(t, 4, 0, &bitmap));
    EXPECT_EQ(100u, bitmap.count);
    EXPECT_EQ(13u, bitmap.size);
    trak_bitmap_free(&bitmap);
    ASSERT_EQ(0, trak_bitmap_datablocks(t, 4, 4 * 65536, &bitmap));
    EXPECT_EQ(25u, bitmap.count);
    EXPECT_EQ(4u, bitmap.size);
    trak_bitmap_free(&bitmap);
    EXPECT_EQ(-EINVAL, trak_bitmap_datablocks(t, 4, 4096, &bitmap));
    EXPECT_EQ(-EINVAL, trak_bitmap_datablocks(t, 4, 3 * 65536, &bitmap));
    EXPECT_EQ(-EINVAL, trak_bitmap_datablocks(t, 3, 0, &bitmap));
}

TEST(cow_usage, counts_chunks_of_the_disk_and_the_bytes_really_allocated) {
    TempDir dir;
    trak_info_arg info = {};
    info.dev_type = TRAK_DEV_SNAP;
    info.chunk_size = 4096;
    info.dev_size = 10 * 4096 - 100;
    // Chunks 0, 1 and 9; bits 10 and beyond are no chunks.
    strcpy(info.cow_bmp_fname, dir.put("bmp", std::string("\x03\xfe", 2)).c_str());
    strcpy(info.cow_data_fname, dir.put("data", std::string(5000, 'd')).c_str());
    std::filesystem::resize_file(info.cow_data_fname, 10 * 4096);
    trak_cow_usage usage;
    ASSERT_EQ(0, trak_cow_usage_get(&info, &usage));
    EXPECT_EQ(10u, usage.chunks);
    EXPECT_EQ(3u, usage.chunks_preserved);
    EXPECT_EQ(3u * 4096, usage.bytes_preserved);
    EXPECT_EQ(10u * 4096 - 100, usage.volume_bytes);
    EXPECT_GT(usage.bytes_allocated, 0u);
    EXPECT_LE(usage.bytes_allocated, 10u * 4096);
}

TEST(cow_usage, missing_files_are_an_error) {
    TempDir dir;
    trak_info_arg info = {};
    trak_cow_usage usage;
    EXPECT_EQ(-EINVAL, trak_cow_usage_get(&info, &usage));
    info.dev_type = TRAK_DEV_SNAP;
    info.chunk_size = 4096;
    info.dev_size = 4096;
    strcpy(info.cow_bmp_fname, dir.path("none").c_str());
    EXPECT_EQ(-ENOENT, trak_cow_usage_get(&info, &usage));
    dir.put("none", "x");
    strcpy(info.cow_data_fname, dir.path("missing").c_str());
    EXPECT_EQ(-ENOENT, trak_cow_usage_get(&info, &usage));
}

}  // namespace
