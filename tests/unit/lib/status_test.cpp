// tests/unit/lib/status_test.cpp: nodes, minors, the status tree and the debug level
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/lib/fake_driver.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using fake::Driver;
using fake::Durable;
using fake::TempDir;

struct Status : testing::Test {
    TempDir root;
    Durable durable;
    Driver driver{durable};
    trak *t = nullptr;
    void SetUp() override {
        trak_seam seam = driver.commands_only();
        ASSERT_EQ(0, trak_open_fn(root.path().c_str(), &seam, &driver, &t));
    }
    void TearDown() override { trak_close(t); }
    void add(uint32_t minor, uint32_t type = TRAK_DEV_FILTER) {
        fake::Node node;
        node.type = type;
        node.dev_size = driver.dev_size;
        driver.nodes[minor] = node;
        root.put("proc/trak/trak" + std::to_string(minor) + "/dev_type",
                 type == TRAK_DEV_FILTER ? "filter\n" : "snap\n");
    }
    std::vector<uint32_t> nodes(uint32_t type) {
        std::vector<uint32_t> minors(300);
        int count = trak_nodes(t, type, minors.data(), 300);
        EXPECT_GE(count, 0);
        minors.resize(static_cast<size_t>(count < 0 ? 0 : count));
        return minors;
    }
};

TEST_F(Status, nodes_include_the_one_at_the_highest_minor) {
    add(3);
    add(7, TRAK_DEV_SNAP);
    add(255);
    EXPECT_EQ((std::vector<uint32_t>{3, 255}), nodes(TRAK_DEV_FILTER));
    EXPECT_EQ((std::vector<uint32_t>{7}), nodes(TRAK_DEV_SNAP));
    EXPECT_EQ((std::vector<uint32_t>{3, 7, 255}), nodes(0));
}

TEST_F(Status, nodes_do_without_a_tree) {
    driver.nodes[4].dev_size = 4096;
    EXPECT_EQ((std::vector<uint32_t>{4}), nodes(0));
}

TEST_F(Status, node_list_tells_how_many_there_are_beyond_the_room) {
    add(1);
    add(2);
    uint32_t one = 99;
    EXPECT_EQ(2, trak_nodes(t, 0, &one, 1));
    EXPECT_EQ(1u, one);
    EXPECT_EQ(-EINVAL, trak_nodes(t, 3, &one, 1));
}

TEST_F(Status, entries_that_are_no_nodes_are_passed_over) {
    add(1);
    root.put("proc/trak/trak/x", "");
    root.put("proc/trak/trakx1/x", "");
    root.put("proc/trak/trak9999999999999999999999/x", "");
    root.put("proc/trak/debug", "1\n");
    EXPECT_EQ((std::vector<uint32_t>{1}), nodes(0));
}

TEST_F(Status, free_minor_is_the_lowest_gap) {
    EXPECT_EQ(0, trak_free_minor(t));
    add(0);
    add(1, TRAK_DEV_SNAP);
    add(3);
    EXPECT_EQ(2, trak_free_minor(t));
}

TEST_F(Status, free_minor_ends_at_the_drivers_limit) {
    root.put("sys/module/trak/parameters/trak_max_blk_minor", "1\n");
    EXPECT_EQ(1u, trak_max_minor(t));
    add(0);
    add(1);
    EXPECT_EQ(-ENOSPC, trak_free_minor(t));
}

TEST_F(Status, limit_is_255_where_the_driver_does_not_tell) {
    EXPECT_EQ(255u, trak_max_minor(t));
    for (const char *text : {"x\n", "-1\n", "99999999\n", ""}) {
        root.put("sys/module/trak/parameters/trak_max_blk_minor", text);
        EXPECT_EQ(255u, trak_max_minor(t)) << text;
    }
}

TEST_F(Status, filter_of_a_snap_is_found_among_its_filters) {
    add(1);
    add(2);
    add(5, TRAK_DEV_SNAP);
    for (uint32_t m : {1u, 2u})
        driver.nodes[m].bits[0] = driver.nodes[m].bits[1] = {0};
    driver.nodes[2].snaps = {5};
    EXPECT_EQ(2, trak_filter_of(t, 5));
    EXPECT_EQ(-ENOENT, trak_filter_of(t, 6));
}

TEST_F(Status, a_field_is_read_without_its_last_newline) {
    root.put("proc/trak/trak3/name", "disk one\n");
    root.put("proc/trak/trak3/snaps", "4\n9\n");
    root.put("proc/trak/trak3/use_cnt", "12\n");
    char text[64];
    int64_t value = 0;
    EXPECT_EQ(8, trak_status(t, "trak3/name", text, sizeof(text)));
    EXPECT_STREQ("disk one", text);
    EXPECT_EQ(3, trak_status(t, "trak3/snaps", text, sizeof(text)));
    EXPECT_STREQ("4\n9", text);
    EXPECT_EQ(0, trak_status_number(t, "trak3/use_cnt", &value));
    EXPECT_EQ(12, value);
    EXPECT_EQ(-EINVAL, trak_status_number(t, "trak3/name", &value));
    EXPECT_EQ(-ENOENT, trak_status(t, "trak4/name", text, sizeof(text)));
}

TEST_F(Status, debug_level_is_written_as_a_line_and_read_back) {
    root.put("proc/trak/debug", "1\n");
    int level = 0;
    EXPECT_EQ(0, trak_debug_set(t, -1));
    EXPECT_EQ("-1\n", fake::read_file(root.path("proc/trak/debug")));
    EXPECT_EQ(0, trak_debug_get(t, &level));
    EXPECT_EQ(-1, level);
}

TEST_F(Status, debug_level_without_a_tree_is_an_error) {
    int level = 0;
    EXPECT_EQ(-ENOENT, trak_debug_set(t, 2));
    EXPECT_EQ(-ENOENT, trak_debug_get(t, &level));
}

}  // namespace
