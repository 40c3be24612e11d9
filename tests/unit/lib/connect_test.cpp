// tests/unit/lib/connect_test.cpp: opening a control device, or saying why not
// SPDX-License-Identifier: GPL-2.0-only
#include "lib/trak_int.h"
#include "tests/unit/lib/fake_driver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include <sys/sysmacros.h>

namespace {

using fake::TempDir;

dev_t made;
int making = 0;  // errno of the making, or 0

int pretend_mknod(const char *, mode_t mode, dev_t dev) {
    EXPECT_TRUE(S_ISCHR(mode));
    EXPECT_EQ(0600u, mode & 07777u);
    made = dev;
    errno = making;
    return making == 0 ? 0 : -1;
}

struct MakeControl : testing::Test {
    TempDir dir;
    std::string control = dir.path("trakctl");
    void SetUp() override {
        made = 0;
        making = 0;
    }
    int make(const std::string &text) {
        return lt_make_control(dir.put("chr_major", text).c_str(), control.c_str(), pretend_mknod);
    }
};

TEST_F(MakeControl, a_missing_device_is_made_with_the_drivers_major) {
    EXPECT_EQ(0, make("240\n"));
    EXPECT_EQ(makedev(240, 0), made);
}

TEST_F(MakeControl, without_a_driver_there_is_nothing_to_make) {
    EXPECT_EQ(-ENODEV, lt_make_control(dir.path("none").c_str(), control.c_str(), pretend_mknod));
    for (const char *text : {"", "\n", "x\n", "0\n", "-3\n", "12x\n", "99999999999999999999\n"})
        EXPECT_EQ(-ENODEV, make(text)) << text;
    EXPECT_EQ(0u, made);
}

TEST_F(MakeControl, the_folder_of_the_nodes_is_made_once) {
    std::string folder = dir.path("trak");
    EXPECT_EQ(0, lt_make_folder(folder.c_str()));
    EXPECT_TRUE(std::filesystem::is_directory(folder));
    EXPECT_EQ(0, lt_make_folder(folder.c_str()));
    EXPECT_EQ(-ENOENT, lt_make_folder(dir.path("none/trak").c_str()));
}

TEST_F(MakeControl, a_device_of_another_number_is_replaced) {
    // /dev/null's number on a file of ours can't be had without privilege: a link shows the rest.
    if (mknod(control.c_str(), S_IFCHR | 0600, makedev(1, 3)) < 0)
        GTEST_SKIP() << "no permission to make device files";
    EXPECT_EQ(0, make("240\n"));
    EXPECT_EQ(makedev(240, 0), made);
    EXPECT_FALSE(std::filesystem::exists(control));
}

TEST_F(MakeControl, anything_that_is_no_device_stays_as_it_is) {
    dir.put("trakctl", "a file");
    EXPECT_EQ(0, make("240\n"));
    EXPECT_EQ(0u, made);
    EXPECT_EQ("a file", fake::read_file(control));
}

TEST_F(MakeControl, a_failed_making_is_reported_and_a_race_is_not) {
    making = EPERM;
    EXPECT_EQ(-EPERM, make("240\n"));
    making = EEXIST;
    EXPECT_EQ(0, make("240\n"));
}

TEST(connection, a_root_without_a_driver_is_enodev_with_what_to_do) {
    TempDir dir;
    trak *t = nullptr;
    char why[TRAK_WHY_SIZE];
    EXPECT_EQ(-ENODEV, trak_open(dir.path().c_str(), &t, why));
    EXPECT_EQ(nullptr, t);
    EXPECT_EQ("no driver at " + dir.path() + ": start one with \"trakd " + dir.path() +
                  "\", or name another root",
              why);
    EXPECT_EQ(-ENODEV, trak_open(dir.path().c_str(), &t, nullptr));
}

TEST(connection, a_control_file_that_is_no_driver_answers_enotty) {
    TempDir dir;
    dir.put("dev/trakctl", "");
    trak *t = nullptr;
    char why[TRAK_WHY_SIZE];
    ASSERT_EQ(0, trak_open((dir.path() + "//").c_str(), &t, why)) << why;
    EXPECT_EQ(dir.path(), trak_root(t));
    EXPECT_EQ(-ENOTTY, trak_start_node(t, 1));
    trak_close(t);
}

TEST(connection, a_root_that_is_too_long_is_refused) {
    trak *t = nullptr;
    char why[TRAK_WHY_SIZE];
    EXPECT_EQ(-ENAMETOOLONG, trak_open(std::string(2000, 'r').c_str(), &t, why));
    EXPECT_NE(std::string(), why);
}

TEST(connection, a_seam_without_commands_is_refused) {
    trak_seam seam = {};
    trak *t = nullptr;
    EXPECT_EQ(-EINVAL, trak_open_fn("/", &seam, nullptr, &t));
    EXPECT_EQ(-EINVAL, trak_open_fn("/", nullptr, nullptr, &t));
    trak_close(nullptr);
}

}  // namespace
