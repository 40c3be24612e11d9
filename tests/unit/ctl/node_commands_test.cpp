// tests/unit/ctl/node_commands_test.cpp: commands on nodes: text, JSON, sentences, exit statuses
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/ctl/console.h"

#include <cerrno>
#include <filesystem>

namespace {

using Nodes = fake::Console;
using nlohmann::json;

TEST_F(Nodes, a_driver_that_is_not_there_is_one_line_and_status_one) {
    std::ostringstream out, err;
    ctl::World world;
    world.out = &out;
    world.err = &err;
    world.open = trak_open;
    std::string root = dir.path();
    const char *argv[] = {"trakctl", "--root", root.c_str(), "list"};
    EXPECT_EQ(1, ctl::run(4, argv, world));
    EXPECT_EQ("trakctl: no driver at " + root + ": start one with \"trakd " + root +
                  "\", or name another root\n",
              err.str());
    EXPECT_EQ("", out.str());
}

TEST_F(Nodes, root_is_handed_on) {
    EXPECT_EQ(0, run({"--root", "/some/where", "list"}));
    EXPECT_EQ("/some/where", opened);
    EXPECT_EQ("no nodes\n", out);
}

TEST_F(Nodes, add_filter_tells_what_it_made) {
    add_filter();
    EXPECT_EQ("node 0 (trak0) filters /dev/image/a in extents of 64 KiB; it is stopped\n", out);
    EXPECT_EQ("", err);
    EXPECT_TRUE(has_marker(0));
    auto value = json({"add-filter", "--disk", "/dev/image/b", "--extent-size", "4096", "--bmp-dir",
                       "/b", "--name", "second", "--uuid", "{u}", "--minor", "9"});
    EXPECT_EQ((json::object({{"minor", 9},
                             {"type", "filter"},
                             {"name", "second"},
                             {"uuid", "{u}"},
                             {"disk", "/dev/image/b"},
                             {"extent_size", 4096},
                             {"bmp_dir", "/b"},
                             {"everything_changed", false},
                             {"notice", nullptr}})),
              value);
}

TEST_F(Nodes, add_filter_after_a_crash_tells_why_everything_counts) {
    durable.markers[marker(0)] = "begun=2024-05-17T08:30:00Z\ndisk=/dev/image/a\n";
    const std::string sentence =
        "everything counts as changed: the session of 2024-05-17T08:30:00Z on /dev/image/a did "
        "not end in order (/b/trak0.session is there), so the bitmap files may lack its last "
        "writes";
    auto value =
        json({"add-filter", "--disk", "/dev/image/a", "--extent-size", "64K", "--bmp-dir", "/b"});
    EXPECT_EQ(true, value["everything_changed"]);
    EXPECT_EQ(sentence, value["notice"]);
    EXPECT_EQ("trakctl: note: " + sentence + "\n", err);
}

TEST_F(Nodes, refusals_are_one_line_and_status_one) {
    add_filter();
    fails({"add-filter", "--disk", "/dev/image/a", "--extent-size", "64K", "--bmp-dir", "/b"},
          "node 0 is a filter on /dev/image/a already");
    fails({"add-filter", "--disk", "/dev/image/b", "--extent-size", "64K", "--bmp-dir", "/b",
           "--minor", "0"},
          "minor 0 is taken: leave it out to get a free one (the next is 1)");
    fails({"add-filter", "--disk", "/dev/image/b", "--extent-size", "64K", "--bmp-dir", "/b",
           "--name", std::string(200, 'n')},
          "the name is too long: at most 127 characters");
    fails(
        {"add-filter", "--disk", std::string(1024, 'd'), "--extent-size", "64K", "--bmp-dir", "/b"},
        "the disk's path is too long: at most 1023 characters");
    fails({"start", "5"}, "there is no node 5: \"trakctl list\" shows which there are");
    fails({"info", "5", "--json"}, "there is no node 5: \"trakctl list\" shows which there are");
}

TEST_F(Nodes, start_stop_and_delete_tell_the_state) {
    add_filter();
    EXPECT_EQ(0, run({"start", "0"}));
    EXPECT_EQ("node 0 is started\n", out);
    fails({"start", "0"}, "node 0 has already been started");
    EXPECT_EQ((json::object({{"minor", 0},
                             {"started", false},
                             {"everything_changed", false},
                             {"notice", nullptr}})),
              json({"stop", "0"}));
    EXPECT_EQ(0, run({"delete", "0"}));
    EXPECT_EQ("node 0 is deleted\n", out);
    EXPECT_TRUE(driver.nodes.empty());
}

TEST_F(Nodes, a_postponed_stop_and_delete_are_told) {
    add_filter();
    add_snap();
    ASSERT_EQ(0, run({"start", "1"}));
    driver.nodes[1].stop_pending = true;
    auto value = json({"stop", "1"});
    EXPECT_EQ(true, value["started"]);
    EXPECT_EQ(0, run({"delete", "1"}));
    EXPECT_EQ("node 1 goes on for now\n", out);
    EXPECT_EQ("trakctl: note: the deletion of snapshot 1 is postponed: it goes when the older "
              "snapshots of its filter are stopped\n",
              err);
}

TEST_F(Nodes, snapshots_are_made_and_resumed) {
    add_filter();
    auto value = json({"add-snap", "--filter", "0", "--chunk-size", "64K", "--cow-bmp", "/c.bmp",
                       "--cow-data", "/c.data"});
    EXPECT_EQ(1, value["minor"]);
    EXPECT_EQ("snap", value["type"]);
    EXPECT_EQ(0, value["filter"]);
    EXPECT_EQ(65536, value["chunk_size"]);
    EXPECT_EQ("/c.bmp", value["cow_bmp"]);
    EXPECT_EQ(0, run({"resume", "1", "--valid", "0"}));
    EXPECT_EQ("node 1 is resumed\n", out);
    EXPECT_FALSE(driver.nodes[1].valid);
    EXPECT_TRUE(driver.nodes[1].started);
}

TEST_F(Nodes, a_driver_without_snapshots_is_one_line) {
    add_filter();
    driver.supports_snaps = false;
    fails(
        {"add-snap", "--filter", "0", "--chunk-size", "64K", "--cow-bmp", "/b", "--cow-data", "/d"},
        "this driver does not support snapshots");
    fails({"test-datablock", "/dev/sdb"}, "can't test /dev/sdb: this driver does not support that");
    driver.nodes[3].type = TRAK_DEV_SNAP;
    driver.nodes[3].dev_size = 65536;
    fails({"datablock", "3"},
          "can't get the data-block bitmap of node 3: this driver does not support that");
}

TEST_F(Nodes, list_shows_all_or_one_type) {
    add_filter();
    add_snap();
    ASSERT_EQ(0, run({"start", "1"}));
    ASSERT_EQ(0, run({"list"}));
    EXPECT_EQ("MINOR  TYPE    STATE    SIZE     NAME   DISK\n"
              "0      filter  started  6.2 MiB  trak0  /dev/image/a\n"
              "1      snap    valid    6.2 MiB  trak1  snapshot of 0\n",
              out);
    auto value = json({"list", "snap"});
    ASSERT_EQ(1u, value.size());
    EXPECT_EQ(1, value[0]["minor"]);
    EXPECT_EQ(0, value[0]["filter"]);
    EXPECT_EQ(true, value[0]["valid"]);
    value = json({"list", "filter"});
    ASSERT_EQ(1u, value.size());
    EXPECT_EQ("/dev/image/a", value[0]["disk"]);
    EXPECT_EQ(driver.dev_size, value[0]["dev_size"]);
}

TEST_F(Nodes, info_of_a_filter_has_every_field) {
    add_filter();
    auto value = json({"info", "0"});
    EXPECT_EQ("filter", value["type"]);
    EXPECT_EQ(false, value["started"]);
    EXPECT_EQ(0, value["use_cnt"]);
    EXPECT_EQ(65536, value["extent_size"]);
    EXPECT_EQ(100, value["extent_cnt"]);
    EXPECT_EQ(json::array(), value["snaps"]);
    EXPECT_EQ(
        (json::object({{"size", 13}, {"file", "/b/trak0.incr"}, {"clear", false}, {"full", true}})),
        value["incr"]);
    EXPECT_EQ("/b/trak0.diff", value["diff"]["file"]);
    EXPECT_EQ(0, run({"info", "0"}));
    EXPECT_NE(std::string::npos, out.find("size          6.2 MiB (6552600 bytes)\n")) << out;
    EXPECT_NE(std::string::npos, out.find("incremental   everything counts as changed\n"));
}

TEST_F(Nodes, info_of_a_snapshot_has_its_cow_usage) {
    add_filter();
    add_snap();
    auto value = json({"info", "1"});
    EXPECT_EQ(nullptr, value["cow"]) << "there are no files before the start";
    dir.put("cow.bmp", std::string("\x05", 1) + std::string(12, '\0'));
    dir.put("cow.data", std::string(65536, 'd'));
    std::filesystem::resize_file(dir.path("cow.data"), 100 * 65536);
    value = json({"info", "1"});
    EXPECT_EQ(2, value["cow"]["chunks_preserved"]);
    EXPECT_EQ(100, value["cow"]["chunks"]);
    EXPECT_EQ(2 * 65536, value["cow"]["bytes_preserved"]);
    EXPECT_EQ(driver.dev_size, value["cow"]["volume_bytes"]);
    EXPECT_NEAR(2.0 * 65536 / 6552600, value["cow"]["part_of_volume"].get<double>(), 1e-9);
    EXPECT_GT(value["cow"]["bytes_allocated"], 0);
    EXPECT_EQ(0, value["filter"]);
    EXPECT_EQ(false, value["valid"]);
    EXPECT_EQ(0, run({"info", "1"}));
    EXPECT_NE(std::string::npos,
              out.find("2 of 100 chunks preserved (128 KiB, 2.0% of the volume)"))
        << out;
}

TEST_F(Nodes, info_and_status_tell_what_the_data_block_map_says) {
    add_filter();
    add_snap();
    EXPECT_EQ(nullptr, json({"info", "1"})["datablocks"]) << "it is not started";
    EXPECT_EQ(0, run({"status"}));
    EXPECT_EQ(std::string::npos, out.find("  data  ")) << out;
    ASSERT_EQ(0, run({"start", "1"}));
    driver.nodes[1].data_chunks = 25;
    dir.put("proc/trak/trak1/dev_name", "/dev/trak/trak1\n");
    dir.put("dev/trak/trak1", "XFSB" + std::string(2000, '\0'));
    const auto value = json({"info", "1"})["datablocks"];
    EXPECT_EQ(true, value["built"]);
    EXPECT_EQ("XFS", value["file_system"]);
    EXPECT_EQ(65536, value["unit_size"]);
    EXPECT_EQ(100, value["units"]);
    EXPECT_EQ(25, value["units_with_data"]);
    EXPECT_EQ(25 * 65536, value["bytes_with_data"]);
    EXPECT_EQ(value, json({"status"})["filters"][0]["snapshots"][0]["datablocks"]);
    EXPECT_EQ(0, run({"info", "1"}));
    EXPECT_NE(std::string::npos, out.find("data blocks  1.6 MiB (25.0%) on XFS\n")) << out;
    EXPECT_EQ(0, run({"status"}));
    EXPECT_NE(std::string::npos, out.find("data            1.6 MiB (25.0%) on XFS\n")) << out;
    driver.nodes[1].map_built = false;
    EXPECT_EQ(false, json({"info", "1"})["datablocks"]["built"]);
    EXPECT_EQ(nullptr, json({"info", "1"})["datablocks"]["file_system"]);
    EXPECT_EQ(0, run({"status"}));
    EXPECT_NE(std::string::npos, out.find("no map: everything counts as data\n")) << out;
}

TEST_F(Nodes, status_tells_changes_and_snapshots) {
    add_filter();
    add_snap();
    ASSERT_EQ(0, trak_clr_bmp(t, 0, TRAK_BMP_INCR));
    ASSERT_EQ(0, run({"start", "1"}));
    ASSERT_TRUE(driver.write(0, 99));
    ASSERT_TRUE(driver.write(0, 3));
    dir.put("proc/trak/trak0/incr_bmp_dirty", "1\n");
    dir.put("proc/trak/trak0/cowqueue_len", "4\n");
    auto value = json({"status"});
    ASSERT_EQ(1u, value["filters"].size());
    auto filter = value["filters"][0];
    EXPECT_EQ(2, filter["incr"]["changed_extents"]);
    EXPECT_EQ(2 * 65536 - 1000, filter["incr"]["changed_bytes"]) << "the last extent is cut";
    EXPECT_EQ(true, filter["incr"]["dirty"]);
    EXPECT_EQ("/b/trak0.incr", filter["incr"]["file"]);
    EXPECT_EQ(true, filter["diff"]["full"]);
    EXPECT_EQ(driver.dev_size, filter["diff"]["changed_bytes"]);
    EXPECT_EQ(nullptr, filter["diff"]["dirty"]) << "the tree has no such file here";
    EXPECT_EQ(4, filter["cowqueue_len"]);
    ASSERT_EQ(1u, filter["snapshots"].size());
    EXPECT_EQ(1, filter["snapshots"][0]["minor"]);
    EXPECT_EQ(nullptr, filter["snapshots"][0]["cow"]);
    ASSERT_EQ(0, run({"status"}));
    EXPECT_NE(std::string::npos, out.find("0     started  0    6.2 MiB  127 KiB (2.0%)")) << out;
    EXPECT_NE(std::string::npos, out.find("6.2 MiB (100%)")) << out;
}

TEST_F(Nodes, status_watch_looks_again_until_it_is_ended) {
    add_filter();
    looks_left = 2;
    ASSERT_EQ(0, run({"status", "--watch"}));
    size_t tables = 0;
    for (size_t at = 0; (at = out.find("NODE", at)) != std::string::npos; at++)
        tables++;
    EXPECT_EQ(3u, tables);
    looks_left = 1;
    ASSERT_EQ(0, run({"status", "--watch", "--json"}));
    std::istringstream lines(out);
    std::string line;
    for (int i = 0; i < 2; i++) {
        ASSERT_TRUE(std::getline(lines, line));
        EXPECT_FALSE(json::parse(line, nullptr, false).is_discarded()) << "one look a line";
    }
    terminal = true;
    looks_left = 0;
    ASSERT_EQ(0, run({"status", "--watch"}));
    EXPECT_EQ(0u, out.find("\x1b[H\x1b[2J"));
}

TEST_F(Nodes, status_watch_ends_when_nobody_reads) {
    add_filter();
    out_is_broken = true;
    looks_left = 1000000;
    EXPECT_EQ(1, run({"status", "--watch"}));
    EXPECT_GT(looks_left, 999990);
}

TEST_F(Nodes, debug_level_is_shown_and_set) {
    dir.put("proc/trak/debug", "1\n");
    EXPECT_EQ(0, run({"debug"}));
    EXPECT_EQ("1\n", out);
    EXPECT_EQ(3, json({"debug", "3"})["debug"]);
    EXPECT_EQ("3\n", fake::read_file(dir.path("proc/trak/debug")));
    std::filesystem::remove(dir.path("proc/trak/debug"));
    fails({"debug"}, "can't read the debug level: No such file or directory");
}

TEST_F(Nodes, control_characters_of_a_path_do_not_reach_the_terminal) {
    add_filter("/dev/image/a\x1b[2J\nb");
    ASSERT_EQ(0, run({"list"}));
    EXPECT_NE(std::string::npos, out.find("/dev/image/a?[2J?b")) << out;
    EXPECT_EQ("/dev/image/a\x1b[2J\nb", json({"list"})[0]["disk"]);
}

TEST_F(Nodes, json_stays_json_with_a_name_that_is_no_utf8) {
    add_filter("/dev/image/\xff\xfe");
    EXPECT_EQ("/dev/image/\xef\xbf\xbd\xef\xbf\xbd", json({"list"})[0]["disk"]);
}

}  // namespace
