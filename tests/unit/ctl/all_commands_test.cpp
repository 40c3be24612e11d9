// tests/unit/ctl/all_commands_test.cpp: attach-all, stop-all and check-config
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/ctl/console.h"

#include <cerrno>
#include <filesystem>
#include <fstream>

namespace {

using nlohmann::json;

struct AllNodes : fake::Console {
    std::string conf() { return dir.path("etc"); }
    std::string file(const std::string &name) { return conf() + "/" + name; }
    void SetUp() override {
        Console::SetUp();
        std::filesystem::create_directory(conf());
    }
    void put(const std::string &name, const std::string &disk, int minor,
             const std::string &more = "") {
        std::ofstream(file(name)) << "disk = " << disk << "\nminor = " << minor
                                  << "\nbitmaps = /b\n"
                                  << more;
    }
    int attach_all() { return run({"attach-all", "--config", conf()}); }
    int stop_all(const char *wait = "0") {
        return run({"stop-all", "--config", conf(), "--wait", wait});
    }
    bool started(uint32_t minor) { return driver.nodes.at(minor).started; }
};

TEST_F(AllNodes, are_attached_in_order_and_started) {
    put("20-b.conf", "/dev/image/b", 1);
    put("10-a.conf", "/dev/image/a", 5, "name = data\nextent-size = 4K\n");
    EXPECT_EQ(0, attach_all()) << err;
    EXPECT_EQ(file("10-a.conf") + ": node 5 (data) on /dev/image/a is attached and started\n" +
                  file("20-b.conf") + ": node 1 (trak1) on /dev/image/b is attached and started\n",
              out);
    EXPECT_EQ("", err);
    EXPECT_TRUE(started(1) && started(5) && has_marker(1) && has_marker(5));
    EXPECT_EQ(4096u, driver.nodes.at(5).unit);
}

TEST_F(AllNodes, that_are_there_stay_as_they_are) {
    put("a.conf", "/dev/image/a", 0);
    put("b.conf", "/dev/image/b", 1);
    ASSERT_EQ(0, attach_all());
    ASSERT_EQ(0, run({"stop", "1"}));
    put("c.conf", "/dev/image/c", 2);
    EXPECT_EQ(0, attach_all()) << err;
    EXPECT_EQ(file("a.conf") + ": node 0 (trak0) on /dev/image/a is started already\n" +
                  file("b.conf") + ": node 1 (trak1) on /dev/image/b is started\n" +
                  file("c.conf") + ": node 2 (trak2) on /dev/image/c is attached and started\n",
              out);
    EXPECT_TRUE(started(0) && started(1) && started(2));
}

TEST_F(AllNodes, one_that_fails_is_told_and_leaves_the_others) {
    put("a.conf", "/dev/image/mounted", 0);
    put("b.conf", "/dev/image/b", 1);
    std::ofstream(file("c.conf")) << "disk = x\n";
    bool refused = false;
    driver.refuse = [&refused](uint32_t code) {
        bool first = code == TRAK_ADD_FILTER_NODE && !refused;
        refused = refused || first;
        return first ? -EBUSY : 0;
    };
    EXPECT_EQ(1, attach_all());
    EXPECT_EQ("trakctl: " + file("c.conf") +
                  ":1: \"x\" does not begin with a slash: give the whole path\ntrakctl: " +
                  file("a.conf") +
                  ": /dev/image/mounted is mounted or open elsewhere: unmount it, attach it, and "
                  "mount the node instead\n",
              err);
    EXPECT_EQ(file("b.conf") + ": node 1 (trak1) on /dev/image/b is attached and started\n", out);
    EXPECT_TRUE(started(1));
}

TEST_F(AllNodes, a_minor_that_is_somebody_elses_is_refused) {
    add_filter("/dev/image/other");
    add_snap();
    put("a.conf", "/dev/image/a", 0);
    put("b.conf", "/dev/image/b", 1);
    put("c.conf", "/dev/image/other", 2);
    EXPECT_EQ(1, attach_all());
    EXPECT_EQ("trakctl: " + file("a.conf") +
                  ": node 0 is a filter on /dev/image/other already\ntrakctl: " + file("b.conf") +
                  ": node 1 is a snapshot: give the disk another minor\ntrakctl: " +
                  file("c.conf") + ": node 0 is a filter on /dev/image/other already\n",
              err);
    EXPECT_EQ(2u, driver.nodes.size());
}

TEST_F(AllNodes, a_node_that_cant_be_started_goes_again) {
    put("a.conf", "/dev/image/a", 0);
    driver.refuse = [](uint32_t code) { return code == TRAK_START_NODE ? -EIO : 0; };
    EXPECT_EQ(1, attach_all());
    EXPECT_EQ("trakctl: " + file("a.conf") + ": can't start node 0: Input/output error\n", err);
    EXPECT_TRUE(driver.nodes.empty());
    EXPECT_FALSE(has_marker(0));
}

TEST_F(AllNodes, a_crash_before_is_told_with_its_file) {
    put("a.conf", "/dev/image/a", 0);
    durable.markers[marker(0)] = "torn";
    EXPECT_EQ(0, attach_all());
    EXPECT_EQ("trakctl: note: " + file("a.conf") +
                  ": everything counts as changed: /b/trak0.session says that the last session did "
                  "not end in order, so the bitmap files may lack its last writes\n",
              err);
    EXPECT_TRUE(full(0, TRAK_BMP_INCR) && full(0, TRAK_BMP_DIFF));
}

TEST_F(AllNodes, a_disk_that_appears_late_is_waited_for_and_one_that_does_not_is_told) {
    put("a.conf", dir.path("late"), 0, "wait = 2\n");
    looks_left = 1000;
    EXPECT_EQ(1, attach_all());
    EXPECT_EQ("trakctl: " + file("a.conf") + ": there is no disk " + dir.path("late") +
                  " after 2 seconds\n",
              err);
    EXPECT_EQ(1000 - 8, looks_left);
    put("b.conf", dir.path("never"), 1, "wait = 1\n");
    EXPECT_EQ(1, attach_all());
    EXPECT_EQ(1000 - 16, looks_left) << "the time is one for all disks";
    looks_left = 3;
    EXPECT_EQ(1, attach_all());
    EXPECT_NE(std::string::npos, err.find("interrupted while waiting for the disk")) << err;
    std::ofstream(dir.path("late")) << "here";
    looks_left = 0;
    std::filesystem::remove(file("b.conf"));
    EXPECT_EQ(0, attach_all()) << err;
}

TEST_F(AllNodes, a_disk_that_is_open_for_a_moment_is_tried_again) {
    std::ofstream(dir.path("disk")) << "open elsewhere, but claimed by nobody";
    put("a.conf", dir.path("disk"), 0, "wait = 2\n");
    int refusals = 3;
    driver.refuse = [&refusals](uint32_t code) {
        return code == TRAK_ADD_FILTER_NODE && refusals-- > 0 ? -EBUSY : 0;
    };
    looks_left = 1000;
    EXPECT_EQ(0, attach_all()) << err;
    EXPECT_EQ(1000 - 3, looks_left);
    EXPECT_TRUE(started(0));
    ASSERT_EQ(0, stop_all());
    refusals = 100;
    EXPECT_EQ(1, attach_all());
    EXPECT_NE(std::string::npos, err.find("is mounted or open elsewhere")) << err;
    EXPECT_EQ(1000 - 3 - 8, looks_left);
}

TEST_F(AllNodes, nothing_configured_needs_no_driver) {
    EXPECT_EQ(0, attach_all());
    EXPECT_EQ("no disk is configured in " + conf() + "\n", out);
    EXPECT_EQ("", opened);
    fails({"attach-all", "--config", "/no/where"},
          "can't read the configuration in /no/where: No such file or directory");
}

TEST_F(AllNodes, are_stopped_in_reverse_and_go) {
    put("1.conf", "/dev/image/a", 7);
    put("2.conf", "/dev/image/b", 2);
    ASSERT_EQ(0, attach_all());
    add_filter("/dev/image/by-hand");
    ASSERT_EQ(0, run({"start", "0"}));
    EXPECT_EQ(0, stop_all()) << err;
    EXPECT_EQ("node 0 (trak0) on /dev/image/by-hand is stopped\n"
              "node 2 (trak2) on /dev/image/b is stopped and deleted\n"
              "node 7 (trak7) on /dev/image/a is stopped and deleted\n",
              out);
    EXPECT_EQ(1u, driver.nodes.size());
    EXPECT_FALSE(started(0));
    EXPECT_FALSE(has_marker(0) || has_marker(2) || has_marker(7));
    EXPECT_EQ(0, stop_all()) << "again";
}

TEST_F(AllNodes, with_snapshots_are_stopped_and_stay) {
    put("1.conf", "/dev/image/a", 0);
    ASSERT_EQ(0, attach_all());
    add_snap();
    EXPECT_EQ(0, stop_all()) << err;
    EXPECT_EQ("node 0 (trak0) on /dev/image/a is stopped\n", out);
    EXPECT_EQ(2u, driver.nodes.size());
    EXPECT_FALSE(has_marker(0));
    EXPECT_EQ(0, attach_all()) << err;
    EXPECT_EQ(file("1.conf") + ": node 0 (trak0) on /dev/image/a is started\n", out);
}

TEST_F(AllNodes, in_use_are_waited_for_while_the_others_stop) {
    put("1.conf", "/dev/image/a", 0);
    put("2.conf", "/dev/image/b", 1);
    ASSERT_EQ(0, attach_all());
    driver.nodes.at(1).use_cnt = 1;
    looks_left = 1000;
    EXPECT_EQ(1, stop_all("2"));
    EXPECT_EQ("node 0 (trak0) on /dev/image/a is stopped and deleted\n", out);
    EXPECT_EQ("trakctl: can't stop node 1: it (or one of its snapshots) is in use; unmount it and "
              "detach its loop devices first\n",
              err);
    EXPECT_EQ(1000 - 8, looks_left);
    EXPECT_TRUE(has_marker(1)) << "its bitmaps are not saved";
    driver.nodes.at(1).use_cnt = 0;
    EXPECT_EQ(0, stop_all());
    EXPECT_FALSE(has_marker(1));
}

TEST_F(AllNodes, are_stopped_whatever_the_configuration_is_worth) {
    put("1.conf", "/dev/image/a", 0);
    ASSERT_EQ(0, attach_all());
    std::ofstream(file("1.conf")) << "rubbish\n";
    EXPECT_EQ(0, stop_all());
    EXPECT_EQ("node 0 (trak0) on /dev/image/a is stopped\n", out);
    EXPECT_EQ("trakctl: note: " + file("1.conf") +
                  ":1: \"rubbish\" is no setting: \"KEY = VALUE\" is\n",
              err);
    EXPECT_EQ(0, run({"stop-all", "--config", "/no/where"}));
}

TEST_F(AllNodes, stopping_without_a_driver_is_done_already) {
    std::ostringstream out_stream, err_stream;
    ctl::World world;
    world.out = &out_stream;
    world.err = &err_stream;
    world.open = trak_open;
    std::string root = dir.path(), etc = conf();
    const char *argv[] = {"trakctl", "--root", root.c_str(), "stop-all", "--config", etc.c_str()};
    EXPECT_EQ(0, ctl::run(6, argv, world)) << err_stream.str();
    EXPECT_EQ("nothing to stop\n", out_stream.str());
}

TEST_F(AllNodes, tell_what_they_did_as_json) {
    put("1.conf", "/dev/image/a", 0);
    auto did = json({"attach-all", "--config", conf()});
    EXPECT_EQ((json::array({json::object({{"file", file("1.conf")},
                                          {"minor", 0},
                                          {"disk", "/dev/image/a"},
                                          {"state", "attached"},
                                          {"name", "trak0"},
                                          {"everything_changed", false},
                                          {"notice", nullptr}})})),
              did);
    EXPECT_EQ("already", json({"attach-all", "--config", conf()})[0]["state"]);
    EXPECT_EQ("deleted", json({"stop-all", "--config", conf()})[0]["state"]);
    EXPECT_EQ(json::array(), json({"stop-all", "--config", conf()}));
    std::ofstream(file("1.conf")) << "minor = 1\n";
    EXPECT_EQ(1, run({"check-config", "--json", "--config", conf()}));
    auto bad = json::parse(out);
    EXPECT_EQ("failed", bad[0]["state"]);
    EXPECT_EQ(file("1.conf") + ": no \"disk\" is given", bad[0]["error"]);
}

TEST_F(AllNodes, a_configuration_is_checked_without_a_driver) {
    put("1.conf", "/dev/disk/by-id/x", 4, "name = data\n");
    std::ofstream(file("2.conf")) << "speed = fast\n";
    EXPECT_EQ(1, run({"check-config", "--config", conf()}));
    EXPECT_EQ(file("1.conf") +
                  ": node 4 (data) on /dev/disk/by-id/x in extents of 64 KiB, bitmaps in /b\n",
              out);
    EXPECT_EQ("trakctl: " + file("2.conf") +
                  ":1: \"speed\" is no key: disk, minor, extent-size, bitmaps, name and wait are\n",
              err);
    EXPECT_EQ("", opened);
}

}  // namespace
