// tests/unit/lib/snap_test.cpp: snapshots that are refused before any command is sent; resuming
// SPDX-License-Identifier: GPL-2.0-only
#include "lib/trak_int.h"
#include "tests/unit/lib/fixture.h"

#include <cerrno>

namespace {

struct Snap : fake::Connected {
    void SetUp() override {
        Connected::SetUp();
        raw_filter(0);
    }
    static trak_add_snap_arg snap_arg(const std::string &stem = "/cow") {
        trak_add_snap_arg arg = {};
        arg.snap_minor = -1;
        arg.chunk_size = 65536;
        strcpy(arg.cow_bmp_fname, (stem + ".bmp").c_str());
        strcpy(arg.cow_data_fname, (stem + ".data").c_str());
        return arg;
    }
    int attach(trak_add_snap_arg arg) { return trak_attach_snap(t, &arg, why); }
    void refused(const trak_add_snap_arg &arg, int error, const std::string &sentence) {
        size_t before = driver.codes.size();
        EXPECT_EQ(-error, attach(arg)) << sentence;
        EXPECT_EQ(sentence, why);
        for (size_t i = before; i < driver.codes.size(); i++)
            EXPECT_NE(TRAK_ADD_SNAP_NODE, driver.codes[i]);
    }
};

TEST_F(Snap, is_created_with_what_the_driver_chose) {
    auto arg = snap_arg();
    EXPECT_EQ(0, trak_attach_snap(t, &arg, why)) << why;
    EXPECT_STREQ("", why);
    EXPECT_EQ(1, arg.snap_minor);
    EXPECT_STREQ("trak1", arg.name);
}

TEST_F(Snap, a_raised_chunk_size_is_told) {
    driver.nodes[0].dev_size = 5ull << 40;
    driver.nodes[0].unit = 1u << 30;
    driver.nodes[0].bits[0] = driver.nodes[0].bits[1] = std::vector<uint8_t>(640);
    auto arg = snap_arg();
    arg.chunk_size = 4096;
    EXPECT_EQ(0, trak_attach_snap(t, &arg, why));
    EXPECT_EQ(8192u, arg.chunk_size);
    EXPECT_STREQ("the volume is too large for chunks of 4096 bytes: they have 8192", why);
}

TEST_F(Snap, refuses_another_chunk_size_than_the_filters_snapshots_have) {
    ASSERT_EQ(0, attach(snap_arg()));
    auto arg = snap_arg("/other");
    arg.chunk_size = 4096;
    refused(arg, EINVAL,
            "snapshot 1 of filter 0 has chunks of 65536 bytes: all snapshots of a filter must have "
            "the same, so give 65536");
}

TEST_F(Snap, refuses_chunks_that_are_no_power_of_two_or_below_a_page) {
    auto arg = snap_arg();
    arg.chunk_size = 12288;
    refused(arg, EINVAL, "the chunk size 12288 is no power of two: take 64K, for example");
    arg.chunk_size = 0;
    refused(arg, EINVAL, "the chunk size 0 is no power of two: take 64K, for example");
    arg.chunk_size = 1;
    refused(arg, EINVAL, "the chunk size 1 is below 4096: take 64K, for example");
}

TEST_F(Snap, refuses_cow_files_on_a_node) {
    driver.places["/cow.data"] = "trak0";
    refused(snap_arg(), EDEADLK,
            "the COW data file /cow.data lies on a file system that is mounted through trak0: give "
            "a file on another disk");
}

TEST_F(Snap, refuses_cow_files_without_a_block_device) {
    driver.places["/cow.bmp"] = "";
    refused(snap_arg(), ENOTBLK,
            "the COW bitmap file /cow.bmp lies on a file system without a block device: give a "
            "file on a disk");
}

TEST_F(Snap, refuses_files_of_another_snapshot_and_one_file_for_both) {
    ASSERT_EQ(0, attach(snap_arg()));
    auto arg = snap_arg("/other");
    strcpy(arg.cow_data_fname, "/cow.bmp");
    refused(arg, EEXIST, "/cow.bmp is in use by snapshot 1: give another file");
    strcpy(arg.cow_data_fname, arg.cow_bmp_fname);
    refused(arg, EINVAL, "the COW bitmap and the COW data need two files");
    arg.cow_data_fname[0] = '\0';
    refused(arg, EINVAL, "no COW data file given");
}

TEST_F(Snap, refuses_taken_and_too_large_minors_and_taken_names) {
    auto arg = snap_arg();
    arg.snap_minor = 0;
    refused(arg, EEXIST, "minor 0 is taken: leave it out to get a free one (the next is 1)");
    arg.snap_minor = 256;
    refused(arg, EINVAL,
            "minor 256 is too big: the highest is 255; leave it out to get a free one");
    arg.snap_minor = -1;
    strcpy(arg.name, "trak0");
    refused(arg, EINVAL,
            "the name trak0 is the one that the driver gives to another minor: choose another");
    memset(arg.name, 'n', sizeof(arg.name) - 1);
    refused(arg, EINVAL, "the name is longer than 127 characters");
}

TEST_F(Snap, refuses_filters_that_are_none) {
    auto arg = snap_arg();
    arg.filter_minor = 5;
    refused(arg, EINVAL, "there is no node 5: \"trakctl list\" shows which there are");
    ASSERT_EQ(0, attach(snap_arg()));
    arg.filter_minor = 1;
    refused(arg, EINVAL, "node 1 is a snapshot: give the minor of a filter");
}

TEST_F(Snap, refuses_one_snapshot_too_many) {
    ASSERT_EQ(0, attach(snap_arg()));
    driver.nodes[0].snaps.assign(256, 1);
    refused(snap_arg("/other"), ENOSPC, "filter 0 has 256 snapshots: delete one first");
}

TEST_F(Snap, refuses_to_create_where_memory_is_short) {
    fake::TempDir host;
    snprintf(t->host, sizeof(t->host), "%s", host.path().c_str());
    host.put("proc/meminfo", "MemTotal:  1000000 kB\nMemAvailable:   9000 kB\n");
    refused(snap_arg(), ENOMEM,
            "only 9000 KiB of memory are available: a creation that finds none would block the "
            "driver; free some first");
    host.put("proc/meminfo", "MemTotal:  1000000 kB\nMemAvailable: 900000 kB\n");
    EXPECT_EQ(0, attach(snap_arg())) << why;
}

TEST_F(Snap, counts_what_can_be_dropped_where_the_kernel_names_no_sum) {
    fake::TempDir host;
    snprintf(t->host, sizeof(t->host), "%s", host.path().c_str());
    host.put("proc/meminfo", "MemTotal: 1000000 kB\nMemFree: 4000 kB\nBuffers: 3000 kB\n"
                             "Cached: 90000 kB\nActive(file): 3000 kB\nInactive(file): 2000 kB\n"
                             "Unevictable: 88000 kB\n");
    refused(snap_arg(), ENOMEM,
            "only 9000 KiB of memory are available: a creation that finds none would block the "
            "driver; free some first");
    host.put("proc/meminfo", "MemTotal: 1000000 kB\nMemFree: 4000 kB\nActive(anon): 9000 kB\n"
                             "Active(file): 13000 kB\nInactive(file): 12000 kB\n");
    EXPECT_EQ(0, attach(snap_arg())) << why;
}

TEST_F(Snap, a_driver_without_snapshots_is_told_in_one_sentence) {
    driver.supports_snaps = false;
    EXPECT_EQ(-EOPNOTSUPP, attach(snap_arg()));
    EXPECT_STREQ("this driver does not support snapshots", why);
}

TEST_F(Snap, a_file_that_is_no_regular_file_is_refused) {
    fake::TempDir dir;
    trak_seam seam = driver.commands_only();
    trak *real = nullptr;
    ASSERT_EQ(0, trak_open_fn(dir.path().c_str(), &seam, &driver, &real));
    auto arg = snap_arg();
    strcpy(arg.cow_bmp_fname, dir.make_dir("bmp").c_str());
    EXPECT_EQ(-EEXIST, trak_attach_snap(real, &arg, why));
    EXPECT_EQ("the COW bitmap file " + dir.path("bmp") + " exists and is no regular file", why);
    strcpy(arg.cow_bmp_fname, dir.path("none/bmp").c_str());
    EXPECT_EQ(-ENOENT, trak_attach_snap(real, &arg, why));
    EXPECT_EQ("can't use the COW bitmap file " + dir.path("none/bmp") +
                  ": No such file or directory",
              why);
    trak_close(real);
}

TEST_F(Snap, resume_guards_the_filter_and_passes_the_three_values) {
    ASSERT_EQ(0, attach(snap_arg()));
    driver.events.clear();
    trak_resume_arg arg = {1, 1, 0, 1};
    EXPECT_EQ(0, trak_resume(t, &arg, why)) << why;
    EXPECT_EQ((std::vector<std::string>{"marker+ /b/trak0.session", "resume 1"}), driver.events);
    EXPECT_EQ(1, driver.records.back()[12]);
    EXPECT_EQ(-EALREADY, trak_resume(t, &arg, why));
    EXPECT_STREQ("snapshot 1 has already been started", why);
    arg.minor = 0;
    EXPECT_EQ(-EINVAL, trak_resume(t, &arg, why));
    EXPECT_STREQ("node 0 is no snapshot: only snapshots are resumed", why);
}

TEST_F(Snap, a_failed_resume_takes_its_new_marker_away) {
    ASSERT_EQ(0, attach(snap_arg()));
    driver.refuse = [](uint32_t code) { return code == TRAK_RESUME_SNAP ? -EIO : 0; };
    trak_resume_arg arg = {1, 1, 0, 0};
    EXPECT_EQ(-EIO, trak_resume(t, &arg, why));
    EXPECT_STREQ("can't resume node 1: Input/output error", why);
    EXPECT_FALSE(has_marker(0));
}

TEST_F(Snap, a_postponed_stop_and_delete_are_told) {
    ASSERT_EQ(0, attach(snap_arg()));
    ASSERT_EQ(0, trak_start(t, 1, why));
    driver.nodes[1].stop_pending = true;
    EXPECT_EQ(0, trak_stop(t, 1, why));
    EXPECT_STREQ("the stop of snapshot 1 is postponed: it ends when the older snapshots of its "
                 "filter are stopped",
                 why);
    EXPECT_EQ(0, trak_detach(t, 1, why));
    EXPECT_STREQ("the deletion of snapshot 1 is postponed: it goes when the older snapshots of its "
                 "filter are stopped",
                 why);
    EXPECT_EQ(1u, driver.nodes.count(1));
}

}  // namespace
