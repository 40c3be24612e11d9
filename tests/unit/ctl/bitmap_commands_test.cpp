// tests/unit/ctl/bitmap_commands_test.cpp: bitmaps to files and back, and marks that are never lost
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/file.h"
#include "tests/unit/ctl/console.h"

#include <cerrno>
#include <filesystem>

#include <unistd.h>

namespace {

using nlohmann::json;

struct Bits : fake::Console {
    std::string file = dir.path("bits");
    void SetUp() override {
        Console::SetUp();
        add_filter();
        ASSERT_EQ(0, trak_clr_bmp(t, 0, TRAK_BMP_INCR));
        ASSERT_EQ(0, run({"start", "0"}));
        for (uint32_t extent : {3u, 4u, 99u})
            ASSERT_TRUE(driver.write(0, extent));
    }
    std::string expected() const {
        std::string bits(13, '\0');
        bits[0] = 0x18;
        bits[12] = 0x08;
        return bits;
    }
    bool left_behind() const { return std::filesystem::exists(file + ".partial"); }
};

TEST_F(Bits, get_without_a_file_tells_every_run) {
    ASSERT_EQ(0, run({"bitmap", "get", "0", "incr"}));
    EXPECT_EQ(
        "# incremental bitmap of node 0: 3 of 100 extents changed (191 KiB, 3.0%), 64 KiB each\n"
        "# first count bytes\n"
        "3 2 131072\n"
        "99 1 64536\n",
        out);
    auto value = json({"bitmap", "get", "0", "incr"});
    EXPECT_EQ(3, value["marked_extents"]);
    EXPECT_EQ(3 * 65536 - 1000, value["marked_bytes"]);
    EXPECT_EQ(13, value["size"]);
    EXPECT_EQ((json::array({{{"first", 3}, {"count", 2}, {"offset", 196608}, {"bytes", 131072}},
                            {{"first", 99}, {"count", 1}, {"offset", 6488064}, {"bytes", 64536}}})),
              value["runs"]);
}

TEST_F(Bits, get_with_a_file_writes_the_raw_bits) {
    auto value = json({"bitmap", "get", "0", "incr", "--file", file});
    EXPECT_EQ(file, value["file"]);
    EXPECT_EQ(0u, value.count("runs"));
    EXPECT_EQ(expected(), fake::read_file(file));
    EXPECT_FALSE(left_behind());
    ASSERT_EQ(0, run({"bitmap", "get", "0", "incr", "--file", "-"}));
    EXPECT_EQ(expected(), out);
}

TEST_F(Bits, get_replaces_an_older_file_whole) {
    dir.put("bits", std::string(5000, 'x'));
    ASSERT_EQ(0, run({"bitmap", "get", "0", "incr", "--file", file})) << err;
    EXPECT_EQ(expected(), fake::read_file(file));
}

TEST_F(Bits, get_clear_takes_the_marks) {
    ASSERT_EQ(0, run({"bitmap", "get-clear", "0", "incr", "--file", file})) << err;
    EXPECT_EQ(expected(), fake::read_file(file));
    EXPECT_FALSE(driver.marked(0, TRAK_BMP_INCR, 3));
    EXPECT_TRUE(driver.marked(0, TRAK_BMP_DIFF, 3));
}

TEST_F(Bits, get_clear_into_an_impossible_file_takes_nothing) {
    std::string gone = dir.path("none/bits");
    fails({"bitmap", "get-clear", "0", "incr", "--file", gone},
          "can't make " + gone + ".partial: No such file or directory");
    EXPECT_TRUE(driver.marked(0, TRAK_BMP_INCR, 3));
}

TEST_F(Bits, get_clear_gives_the_marks_back_when_they_cannot_be_written) {
    if (access("/dev/full", W_OK) < 0)
        GTEST_SKIP() << "no /dev/full here";
    fails({"bitmap", "get-clear", "0", "incr", "--file", "/dev/full"},
          "can't write /dev/full: No space left on device; the marks were put back");
    EXPECT_TRUE(driver.marked(0, TRAK_BMP_INCR, 3));
    EXPECT_TRUE(driver.marked(0, TRAK_BMP_INCR, 99));
}

TEST_F(Bits, get_clear_gives_the_marks_back_when_nobody_reads) {
    out_is_broken = true;
    for (auto words :
         {std::vector<std::string>{"bitmap", "get-clear", "0", "incr"},
          std::vector<std::string>{"bitmap", "get-clear", "0", "incr", "--file", "-"}}) {
        EXPECT_EQ(1, run(words));
        EXPECT_EQ("trakctl: can't write the bitmap to standard output; the marks were put back\n",
                  err);
        EXPECT_TRUE(driver.marked(0, TRAK_BMP_INCR, 4));
    }
}

TEST_F(Bits, get_clear_that_loses_marks_says_so) {
    out_is_broken = true;
    driver.refuse = [](uint32_t code) { return code == TRAK_MERGE_BMP ? -EIO : 0; };
    EXPECT_EQ(1, run({"bitmap", "get-clear", "0", "incr"}));
    EXPECT_EQ(
        "trakctl: can't write the bitmap to standard output; the marks could NOT be put back: "
        "make a full backup\n",
        err);
}

TEST_F(Bits, clear_set_merge_save_and_load_do_what_they_say) {
    ASSERT_EQ(0, run({"bitmap", "clear", "0", "incr"}));
    EXPECT_EQ("incremental bitmap of node 0: clear done\n", out);
    EXPECT_FALSE(driver.marked(0, TRAK_BMP_INCR, 3));
    std::string bits(13, '\0');
    bits[1] = 1;
    dir.put("bits", bits);
    ASSERT_EQ(0, run({"bitmap", "merge", "0", "incr", "--file", file})) << err;
    ASSERT_TRUE(driver.write(0, 3));
    EXPECT_TRUE(driver.marked(0, TRAK_BMP_INCR, 8));
    EXPECT_EQ((json::object({{"minor", 0}, {"bitmap", "incr"}, {"action", "set"}})),
              json({"bitmap", "set", "0", "incr", "--file", file}));
    EXPECT_TRUE(driver.marked(0, TRAK_BMP_INCR, 8));
    EXPECT_FALSE(driver.marked(0, TRAK_BMP_INCR, 3));
    ASSERT_EQ(0, run({"bitmap", "save", "0", "incr"}));
    ASSERT_TRUE(driver.write(0, 5));
    ASSERT_EQ(0, run({"bitmap", "load", "0", "incr"}));
    EXPECT_FALSE(driver.marked(0, TRAK_BMP_INCR, 5));
    EXPECT_EQ("", err);
    ASSERT_EQ(0, run({"bitmap", "set", "0", "incr"}));
    EXPECT_TRUE(full(0, TRAK_BMP_INCR));
}

TEST_F(Bits, load_of_a_distrusted_file_is_told) {
    durable.bitmaps["/b/trak0.incr"].dirty = true;
    ASSERT_EQ(0, run({"bitmap", "load", "0", "incr"}));
    EXPECT_EQ(
        "trakctl: note: everything counts as changed in the incremental bitmap of node 0: its "
        "file says so, or was not to be trusted\n",
        err);
}

TEST_F(Bits, a_failed_save_is_one_line) {
    driver.saves_fail = true;
    fails({"bitmap", "save", "0", "diff"},
          "can't save the differential bitmap of node 0: No space left on device; dmesg may say "
          "more");
}

TEST_F(Bits, files_of_another_size_are_refused) {
    dir.put("bits", "short");
    fails({"bitmap", "set", "0", "incr", "--file", file},
          file + " holds 5 bytes, but the bitmap has 13: give bits of this node, as \"bitmap get\" "
                 "writes them");
    dir.put("bits", std::string(14, 'l'));
    fails({"bitmap", "merge", "0", "incr", "--file", file},
          file + " holds more than 13 bytes, but the bitmap has 13: give bits of this node, as "
                 "\"bitmap get\" writes them");
    fails({"bitmap", "set", "0", "incr", "--file", dir.path("none")},
          "can't open " + dir.path("none") + ": No such file or directory");
}

TEST_F(Bits, snapshots_have_data_blocks_and_no_change_bitmaps) {
    add_snap();
    fails({"bitmap", "get", "1", "incr"},
          "node 1 is a snapshot and has no change bitmaps: give its filter");
    fails({"datablock", "0"}, "node 0 is a filter: data blocks are known of snapshots only");
    fails({"map", "1", "incr"}, "node 1 is a snapshot: it has no incr bitmap");
    fails({"map", "0", "datablock"}, "node 0 is a filter: it has no datablock bitmap");
    fails({"datablock", "1", "--extent-size", "4K"},
          "the extent size must be a power of two and at least the snapshot's chunk size, 64 KiB");
    fails({"datablock", "1"},
          "can't get the data-block bitmap of node 1: the driver refused; dmesg says why");
    ASSERT_EQ(0, run({"start", "1"}));
    auto value = json({"datablock", "1", "--extent-size", "256K", "--file", file});
    EXPECT_EQ("datablock", value["bitmap"]);
    EXPECT_EQ(25, value["extents"]);
    EXPECT_EQ(12 + 1, value["marked_extents"]);
    EXPECT_EQ(std::string(4, '\x0f'), fake::read_file(file));
}

TEST_F(Bits, map_draws_in_the_terminal_as_svg_and_as_numbers) {
    ASSERT_EQ(0, run({"map", "0", "incr"}));
    EXPECT_NE(std::string::npos, out.find("incremental changes of trak0 on /dev/image/a, 6.2 MiB"));
    EXPECT_NE(std::string::npos, out.find("···██·")) << out;
    utf8 = false;
    ASSERT_EQ(0, run({"map", "0", "incr"}));
    EXPECT_NE(std::string::npos, out.find("...@@.")) << out;
    std::string svg = dir.path("map.svg");
    ASSERT_EQ(0, run({"map", "0", "diff", "--svg", svg}));
    EXPECT_EQ(svg + " written\n", out);
    EXPECT_EQ(0u, fake::read_file(svg).find("<svg "));
    auto value = json({"map", "0", "incr"});
    ASSERT_EQ(100u, value["shades"].size());
    EXPECT_EQ(4, value["shades"][3]);
    EXPECT_EQ(0, value["shades"][5]);
    fails({"map", "0", "incr", "--svg", dir.path("none/m.svg")},
          "can't make " + dir.path("none/m.svg") + ".partial: No such file or directory");
}

TEST(out_file, without_a_commit_leaves_nothing_behind) {
    fake::TempDir dir;
    std::string path = dir.put("kept", "old");
    { ctl::OutFile file(path, 100); }
    EXPECT_EQ("old", fake::read_file(path));
    EXPECT_FALSE(std::filesystem::exists(path + ".partial"));
}

}  // namespace
