// tests/unit/lib/datablocks_test.cpp: what a snap's data-block map tells about itself
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/lib/fixture.h"

#include <cerrno>

namespace {

struct Datablocks : fake::Connected {
    fake::TempDir root;
    trak_info_arg info = {};
    trak_datablock_usage usage = {};

    void SetUp() override {
        trak_seam seam = driver.everything();
        ASSERT_EQ(0, trak_open_fn(root.path().c_str(), &seam, &driver, &t));
    }
    // Snap 4 of a volume of so many chunks of 64 KiB.
    void snap_of(uint64_t chunks, uint64_t cut = 0) {
        driver.dev_size = chunks * 65536 - cut;
        raw_filter(3);
        trak_add_snap_arg arg = {};
        arg.filter_minor = 3;
        arg.snap_minor = 4;
        arg.chunk_size = 65536;
        ASSERT_EQ(0, trak_add_snap_node(t, &arg));
        ASSERT_EQ(0, trak_start_node(t, 4));
        ASSERT_EQ(0, trak_get_info(t, 4, &info));
    }
    int ask() { return trak_datablock_usage_get(t, &info, &usage); }
    // An image of the snap, with bytes at an offset.
    void image(size_t offset, const std::string &bytes) {
        root.put("proc/trak/trak4/dev_name", "/dev/trak/snap\n");
        std::string all = fake::read_file(root.path("dev/trak/snap"));
        all.resize(70000);
        root.put("dev/trak/snap", all.replace(offset, bytes.size(), bytes));
    }
};

TEST_F(Datablocks, a_map_with_free_chunks_was_built) {
    snap_of(100, 1000);
    driver.nodes[4].data_chunks = 37;
    ASSERT_EQ(0, ask());
    EXPECT_EQ(1, usage.built);
    EXPECT_EQ(100u, usage.units);
    EXPECT_EQ(65536u, usage.unit_size);
    EXPECT_EQ(37u, usage.units_with_data);
    EXPECT_EQ(37u * 65536, usage.bytes_with_data);
    EXPECT_EQ(driver.dev_size, usage.volume_bytes);
    EXPECT_STREQ("", usage.file_system) << "there is no node to read it from";
}

TEST_F(Datablocks, a_full_map_was_built_where_the_bits_beyond_it_are_clear) {
    snap_of(100, 1000);
    driver.nodes[4].data_chunks = 100;
    ASSERT_EQ(0, ask());
    EXPECT_EQ(1, usage.built);
    EXPECT_EQ(driver.dev_size, usage.bytes_with_data) << "the last chunk is cut";
}

TEST_F(Datablocks, ones_from_end_to_end_are_no_map) {
    snap_of(100, 1000);
    driver.nodes[4].map_built = false;
    image(1024 + 56, "\x53\xef");
    ASSERT_EQ(0, ask());
    EXPECT_EQ(0, usage.built);
    EXPECT_EQ(driver.dev_size, usage.bytes_with_data);
    EXPECT_STREQ("", usage.file_system) << "what is on the disk is not what a map came from";
}

TEST_F(Datablocks, whole_bytes_are_asked_for_again_in_larger_units) {
    snap_of(128);
    driver.nodes[4].data_chunks = 128;
    ASSERT_EQ(0, ask());
    EXPECT_EQ(1, usage.built);
    EXPECT_EQ(65536u, usage.unit_size) << "what is counted stays the chunk";
    driver.nodes[4].map_built = false;
    ASSERT_EQ(0, ask());
    EXPECT_EQ(0, usage.built);
}

TEST_F(Datablocks, a_full_volume_of_whole_bytes_at_every_size_is_not_known) {
    snap_of(uint64_t{1} << 18);  // 8 units of the largest size
    driver.nodes[4].data_chunks = 1 << 18;
    ASSERT_EQ(0, ask());
    EXPECT_EQ(-1, usage.built);
    driver.nodes[4].data_chunks = (1 << 18) - 1;
    ASSERT_EQ(0, ask());
    EXPECT_EQ(1, usage.built);
}

TEST_F(Datablocks, a_map_is_asked_for_in_units_that_fit_a_megabyte) {
    snap_of(uint64_t{1} << 27);
    driver.nodes[4].data_chunks = 17;
    ASSERT_EQ(0, ask());
    EXPECT_EQ(uint64_t{1} << 23, usage.units);
    EXPECT_EQ(16u * 65536, usage.unit_size);
    EXPECT_EQ(2u, usage.units_with_data);
    for (size_t i = 0; i < driver.codes.size(); i++)
        if (driver.codes[i] == TRAK_GET_DATABLOCK_BMP) {
            int32_t size = 0;
            memcpy(&size, driver.records[i].data() + 8, sizeof(size));
            EXPECT_LE(size, 1 << 20);
        }
}

TEST_F(Datablocks, a_snap_that_is_not_started_is_not_asked) {
    snap_of(100);
    info.started = 0;
    EXPECT_EQ(-ENODATA, ask());
    EXPECT_NE(TRAK_GET_DATABLOCK_BMP, driver.codes.back());
    info.dev_type = TRAK_DEV_FILTER;
    EXPECT_EQ(-EINVAL, ask());
}

TEST_F(Datablocks, an_answer_that_fails_is_handed_on) {
    snap_of(128);
    driver.nodes[4].data_chunks = 128;
    int answers = 0;
    driver.refuse = [&](uint32_t code) {
        return code == TRAK_GET_DATABLOCK_BMP && ++answers == 2 ? -EPERM : 0;
    };
    EXPECT_EQ(-EPERM, ask()) << "the second question";
    answers = 1;
    EXPECT_EQ(-EPERM, ask());
}

TEST_F(Datablocks, the_file_system_is_told_by_the_image) {
    snap_of(100);
    image(1024 + 56, "\x53\xef");
    ASSERT_EQ(0, ask());
    EXPECT_STREQ("ext2", usage.file_system);
    image(1024 + 92, "\x04");
    ASSERT_EQ(0, ask());
    EXPECT_STREQ("ext3", usage.file_system);
    image(1024 + 96, "\x40");
    ASSERT_EQ(0, ask());
    EXPECT_STREQ("ext4", usage.file_system);
    image(0, "XFSB");
    ASSERT_EQ(0, ask());
    EXPECT_STREQ("", usage.file_system) << "two may be meant";
    image(1024 + 56, std::string(2, '\0'));
    ASSERT_EQ(0, ask());
    EXPECT_STREQ("XFS", usage.file_system);
    image(0, std::string(4, '\0'));
    image(65536 + 52, "ReIsEr2Fs");
    ASSERT_EQ(0, ask());
    EXPECT_STREQ("ReiserFS", usage.file_system);
}

}  // namespace
