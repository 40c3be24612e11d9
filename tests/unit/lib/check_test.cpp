// tests/unit/lib/check_test.cpp: filters that are refused before any command is sent, and the words
// SPDX-License-Identifier: GPL-2.0-only
#include "lib/trak_int.h"
#include "tests/unit/lib/fixture.h"

#include <cerrno>

#include <unistd.h>

namespace {

struct CheckFilter : fake::Connected {
    // Refused with this error and sentence, and no creation was sent.
    void refused(const trak_add_filter_arg &arg, int error, const std::string &sentence) {
        size_t before = driver.codes.size();
        EXPECT_EQ(-error, attach(arg)) << sentence;
        EXPECT_EQ(sentence, why);
        for (size_t i = before; i < driver.codes.size(); i++)
            EXPECT_NE(TRAK_ADD_FILTER_NODE, driver.codes[i]);
    }
};

TEST_F(CheckFilter, refuses_a_taken_minor_and_names_a_free_one) {
    raw_filter(0);
    raw_filter(1, "/dev/image/other");
    refused(filter_arg("/dev/image/a", 1), EEXIST,
            "minor 1 is taken: leave it out to get a free one (the next is 2)");
    EXPECT_EQ(2u, driver.nodes.size()) << "the entry of the node that was there is lost";
}

TEST_F(CheckFilter, refuses_a_minor_beyond_the_table) {
    refused(filter_arg("/dev/image/a", 256), EINVAL,
            "minor 256 is too big: the highest is 255; leave it out to get a free one");
    EXPECT_EQ(0, attach(filter_arg("/dev/image/a", 255))) << why;
}

TEST_F(CheckFilter, refuses_extents_that_are_no_power_of_two_or_below_a_page) {
    for (uint32_t size : {0u, 6144u, 65537u}) {
        auto arg = filter_arg();
        arg.extent_size = size;
        refused(arg, EINVAL,
                "the extent size " + std::to_string(size) +
                    " is no power of two: take 64K, for example");
    }
    auto arg = filter_arg();
    arg.extent_size = 2048;
    refused(arg, EINVAL, "the extent size 2048 is below 4096: take 64K, for example");
}

TEST_F(CheckFilter, refuses_names_that_would_reach_other_files_or_nodes) {
    raw_filter(0);
    driver.nodes[0].name = "one";
    auto named = [](const char *name, int32_t minor = -1) {
        auto arg = filter_arg("/dev/image/a", minor);
        strcpy(arg.name, name);
        return arg;
    };
    refused(named("../sda"), EINVAL,
            "the name ../sda can't be that of a file in /dev/trak: leave the slash out");
    refused(named(".."), EINVAL,
            "the name .. can't be that of a file in /dev/trak: leave the slash out");
    refused(named("one"), EEXIST, "node 0 is named one already: choose another name");
    refused(named("trak7"), EINVAL,
            "the name trak7 is the one that the driver gives to another minor: choose another");
    refused(named("trak7", 8), EINVAL,
            "the name trak7 is the one that the driver gives to another minor: choose another");
    refused(named("a\nb"), EINVAL, "the name holds a control character");
    EXPECT_EQ(0, attach(named("trak7", 7))) << why;
}

TEST_F(CheckFilter, refuses_text_that_the_record_would_cut) {
    auto arg = filter_arg();
    memset(arg.uuid, 'u', sizeof(arg.uuid));
    refused(arg, EINVAL, "the identifier is longer than 38 characters");
    arg = filter_arg();
    memset(arg.name, 'n', sizeof(arg.name));
    refused(arg, EINVAL, "the name is longer than 127 characters");
    arg = filter_arg();
    memset(arg.hdd_name, 'd', sizeof(arg.hdd_name));
    refused(arg, ENAMETOOLONG, "a path is longer than 1023 characters");
    arg = filter_arg();
    memset(arg.bmp_dir, 'd', sizeof(arg.bmp_dir) - 1);
    refused(arg, ENAMETOOLONG, "the path of the bitmap directory is too long");
}

TEST_F(CheckFilter, refuses_empty_paths) {
    auto arg = filter_arg("");
    refused(arg, EINVAL, "no disk given: name its block special file");
    arg = filter_arg();
    arg.bmp_dir[0] = '\0';
    refused(arg, EINVAL, "no directory for the bitmap files given");
}

TEST_F(CheckFilter, refuses_a_second_filter_on_a_disk) {
    raw_filter(2, "/dev/image/a");
    refused(filter_arg("/dev/image/a"), EEXIST, "node 2 is a filter on /dev/image/a already");
}

TEST_F(CheckFilter, refuses_a_bitmap_directory_on_a_node) {
    driver.places["/b"] = "trak3";
    refused(
        filter_arg(), EDEADLK,
        "the bitmap directory /b lies on a file system that is mounted through trak3: unmounted "
        "before the end, it would miss the last save; give a directory on another disk");
    driver.places["/b"] = "";  // without a block device: fine for bitmaps
    EXPECT_EQ(0, attach(filter_arg())) << why;
}

TEST_F(CheckFilter, says_what_the_drivers_refusals_mean) {
    struct {
        int error;
        const char *sentence;
    } table[] = {
        {EBUSY, "/dev/image/a is mounted or open elsewhere: unmount it, attach it, and mount the "
                "node instead"},
        {ENOENT, "the driver knows no disk /dev/image/a"},
        {ENOSPC, "every minor is taken: delete a node first"},
        {EINVAL, "the driver refused /dev/image/a: is it a block device that can be written, with "
                 "blocks no larger than an extent? the driver's log says more"},
        {ENOMEM, "can't attach /dev/image/a: Cannot allocate memory"},
    };
    for (const auto &row : table) {
        driver.refuse = [&](uint32_t code) {
            return code == TRAK_ADD_FILTER_NODE ? -row.error : 0;
        };
        EXPECT_EQ(-row.error, attach(filter_arg()));
        EXPECT_STREQ(row.sentence, why);
        EXPECT_TRUE(durable.markers.empty());
    }
}

TEST_F(CheckFilter, leaves_the_record_alone_when_it_refuses) {
    auto arg = filter_arg("/dev/image/a", 300), before = arg;
    EXPECT_EQ(-EINVAL, trak_attach_filter(t, &arg, nullptr));
    EXPECT_EQ(0, memcmp(&arg, &before, sizeof(arg)));
}

// With the machine's own files.
struct CheckPaths : testing::Test {
    fake::TempDir dir;
    fake::Durable durable;
    fake::Driver driver{durable};
    trak *t = nullptr;
    char why[TRAK_WHY_SIZE] = "", cwd[4096] = "";
    void SetUp() override {
        trak_seam seam = driver.commands_only();
        ASSERT_EQ(0, trak_open_fn(dir.path().c_str(), &seam, &driver, &t));
        ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
    }
    void TearDown() override {
        trak_close(t);
        ASSERT_EQ(0, chdir(cwd));
    }
    int attach(const char *disk, const char *bmp_dir, trak_add_filter_arg &arg) {
        arg = {};
        strcpy(arg.hdd_name, disk);
        strcpy(arg.bmp_dir, bmp_dir);
        arg.minor = -1;
        arg.extent_size = 4096;
        return trak_attach_filter(t, &arg, why);
    }
};

TEST_F(CheckPaths, make_relative_paths_absolute) {
    dir.put("disk", "");
    dir.make_dir("maps/");
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    trak_add_filter_arg arg;
    ASSERT_EQ(0, attach("disk", "./maps//", arg)) << why;
    EXPECT_EQ(dir.path("disk"), arg.hdd_name);
    EXPECT_EQ(dir.path("maps"), arg.bmp_dir);
    EXPECT_TRUE(access(dir.path("maps/trak0.session").c_str(), F_OK) == 0);
}

TEST_F(CheckPaths, leave_absolute_disk_names_to_the_driver) {
    trak_add_filter_arg arg;
    ASSERT_EQ(0, attach("/dev/image/one", dir.path().c_str(), arg)) << why;
    EXPECT_STREQ("/dev/image/one", arg.hdd_name);
}

TEST_F(CheckPaths, refuse_what_is_not_there) {
    trak_add_filter_arg arg;
    EXPECT_EQ(-ENOENT, attach("no-disk-here", dir.path().c_str(), arg));
    EXPECT_STREQ("can't find the disk no-disk-here: No such file or directory", why);
    EXPECT_EQ(-ENOENT, attach("/dev/image/a", dir.path("none").c_str(), arg));
    EXPECT_EQ("can't use the bitmap directory " + dir.path("none") + ": No such file or directory",
              why);
    dir.put("file", "");
    EXPECT_EQ(-ENOTDIR, attach("/dev/image/a", dir.path("file").c_str(), arg));
    EXPECT_EQ("can't use the bitmap directory " + dir.path("file") + ": Not a directory", why);
    EXPECT_TRUE(driver.nodes.empty());
}

TEST_F(CheckPaths, refuse_a_directory_in_the_drivers_own_tree) {
    dir.make_dir("dev/trak/inside");
    trak_add_filter_arg arg;
    EXPECT_EQ(-EDEADLK, attach("/dev/image/a", dir.path("dev/trak/inside").c_str(), arg));
}

struct Explained : fake::Connected {};

TEST_F(Explained, unknown_nodes_and_refusals_say_what_to_do) {
    EXPECT_EQ(-EINVAL, trak_start(t, 9, why));
    EXPECT_STREQ("there is no node 9: \"trakctl list\" shows which there are", why);
    EXPECT_EQ(-EINVAL, trak_stop(t, 9, why));
    EXPECT_STREQ("there is no node 9: \"trakctl list\" shows which there are", why);
    EXPECT_EQ(-EINVAL, trak_detach(t, 9, why));
    EXPECT_STREQ("there is no node 9: \"trakctl list\" shows which there are", why);
    raw_filter(1);
    ASSERT_EQ(0, trak_start(t, 1, why)) << why;
    EXPECT_EQ(-EALREADY, trak_start(t, 1, why));
    EXPECT_STREQ("node 1 has already been started", why);
    driver.nodes[1].use_cnt = 1;
    EXPECT_EQ(-EBUSY, trak_stop(t, 1, why));
    EXPECT_STREQ("can't stop node 1: it (or one of its snapshots) is in use; unmount it and detach "
                 "its loop devices first",
                 why);
    EXPECT_EQ(-EBUSY, trak_detach(t, 1, why));
    EXPECT_TRUE(has_marker(1));
}

TEST_F(Explained, every_errno_has_its_words) {
    struct {
        int rc;
        const char *sentence;
    } table[] = {
        {-EOPNOTSUPP, "can't start node 4: this driver does not support that"},
        {-EAGAIN, "can't start node 4: the disk did not come to rest in time; try again under less "
                  "load"},
        {-EINVAL, "the driver refused to start node 4: the driver's log says why"},
        {-EIO, "can't start node 4: Input/output error"},
    };
    for (const auto &row : table) {
        EXPECT_EQ(row.rc, lt_explain(t, row.rc, "start", 4, why));
        EXPECT_STREQ(row.sentence, why);
    }
}

}  // namespace
