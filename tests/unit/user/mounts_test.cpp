// tests/unit/user/mounts_test.cpp: reading the mount table and /sys, from texts of our own
// SPDX-License-Identifier: GPL-2.0-only
#include "os/user/mounts.h"

#include <fstream>

#include "user_testing.h"

namespace {

using namespace user;

constexpr const char *kTable =
    "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
    "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard\n"
    "40 27 7:3 / /mnt/with\\040blank\\134and\\011tab rw - ext3 /dev/loop3 rw\n"
    "not a line of the table\n"
    "41 27 x:y / /bad rw - ext3 /dev/loop4 rw\n"
    "42 27 8:1 / /no/dash rw ext3 /dev/sda1 rw\n"
    "43 27 0:50 / /srv/trak rw,nosuid master:4 propagate_from:2 - fuse.trakd trakd rw,user_id=0\n"
    "44 27 0:50 /dev /srv/bound rw - fuse.trakd trakd rw\n"
    "45 27 7:5 / /srv/trak2 rw - ext4 /dev/loop5 rw\n"
    "46 45 7:6 / /srv/trak2 rw - ext4 /dev/loop6 rw\n"
    "47 27 259:1 / /mnt/part rw - xfs /dev/loop7p1";

TEST(user_mounts, lines_that_can_be_read_are_taken_with_their_escapes_undone) {
    std::vector<Mount> mounts = parse_mountinfo(kTable);
    ASSERT_EQ(mounts.size(), 8u);
    EXPECT_EQ(mounts[1].dev, (DevNumber{254, 0}));
    EXPECT_EQ(mounts[1].mount_point, "/");
    EXPECT_EQ(mounts[1].source, "/dev/vda");
    EXPECT_EQ(mounts[2].mount_point, "/mnt/with blank\\and\ttab");
    EXPECT_EQ(mounts[2].dev, (DevNumber{7, 3}));
    EXPECT_EQ(mounts[3].type, "fuse.trakd");
    EXPECT_EQ(mounts[4].root, "/dev");
    EXPECT_EQ(mounts[7].source, "/dev/loop7p1");
    EXPECT_TRUE(parse_mountinfo("").empty());
}

TEST(user_mounts, a_path_lies_on_the_longest_and_last_mount_above_it) {
    std::vector<Mount> mounts = parse_mountinfo(kTable);
    auto dev_of = [&](const char *path) { return mount_of(mounts, path)->dev; };
    EXPECT_EQ(dev_of("/srv/trak/dev/trak/a"), (DevNumber{0, 50}));
    EXPECT_EQ(dev_of("/srv/trak"), (DevNumber{0, 50}));
    EXPECT_EQ(dev_of("/srv/trak3/x"), (DevNumber{254, 0}));
    EXPECT_EQ(dev_of("/srv/trak2/x"), (DevNumber{7, 6}));
    EXPECT_EQ(dev_of("/"), (DevNumber{254, 0}));
    EXPECT_EQ(mount_of(mounts, "relative"), nullptr);
}

TEST(user_mounts, a_path_is_told_from_the_top_of_its_file_system) {
    std::vector<Mount> mounts = parse_mountinfo(kTable);
    auto inside = [&](const char *path) {
        return path_in_file_system(*mount_of(mounts, path), path);
    };
    EXPECT_EQ(inside("/srv/trak/dev/trak/a"), "/dev/trak/a");
    EXPECT_EQ(inside("/srv/bound/trak/a"), "/dev/trak/a");
    EXPECT_EQ(inside("/srv/trak"), "/");
    EXPECT_EQ(inside("/etc/passwd"), "/etc/passwd");
}

// A machine of two loop devices, one with a partition, and a disk.
class user_sysfs : public testing::Test {
  protected:
    void put(const std::string &path, const std::string &text) {
        std::filesystem::create_directories(std::filesystem::path(root_ / path).parent_path());
        std::ofstream(root_ / path) << text;
    }
    void link(const std::string &name, const std::string &target) {
        std::filesystem::create_directories(std::filesystem::path(root_ / name).parent_path());
        std::filesystem::create_symlink(target, root_ / name);
    }
    void SetUp() override {
        put("sys/devices/virtual/block/loop0/dev", "7:0\n");
        put("sys/devices/virtual/block/loop0/loop/backing_file", "/srv/trak/dev/trak/vol one\n");
        put("sys/devices/virtual/block/loop0/loop0p1/dev", "259:4\n");
        put("sys/devices/virtual/block/loop0/loop0p1/partition", "1\n");
        put("sys/devices/virtual/block/loop1/dev", "7:1\n");
        put("sys/devices/pci/sda/dev", "8:0\n");
        for (const char *loop : {"loop0", "loop1"})
            link(std::string("sys/block/") + loop, std::string("../devices/virtual/block/") + loop);
        link("sys/block/sda", "../devices/pci/sda");
        link("sys/dev/block/7:0", "../../devices/virtual/block/loop0");
        link("sys/dev/block/7:1", "../../devices/virtual/block/loop1");
        link("sys/dev/block/259:4", "../../devices/virtual/block/loop0/loop0p1");
        link("sys/dev/block/8:0", "../../devices/pci/sda");
    }
    user_testing::Folder root_;
};

TEST_F(user_sysfs, a_loop_device_and_its_partition_tell_the_backing_file) {
    BlockDevice device;
    ASSERT_TRUE(describe_block(root_.path(), {7, 0}, &device));
    EXPECT_EQ(device.name, "loop0");
    EXPECT_FALSE(device.is_partition());
    EXPECT_EQ(device.backing_file, "/srv/trak/dev/trak/vol one");
    ASSERT_TRUE(describe_block(root_.path(), {259, 4}, &device));
    EXPECT_EQ(device.name, "loop0p1");
    EXPECT_EQ(device.whole, "loop0");
    EXPECT_TRUE(device.is_partition());
    EXPECT_EQ(device.backing_file, "/srv/trak/dev/trak/vol one");
}

TEST_F(user_sysfs, what_is_no_loop_device_has_no_backing_file) {
    BlockDevice device;
    ASSERT_TRUE(describe_block(root_.path(), {8, 0}, &device));
    EXPECT_EQ(device.whole, "sda");
    EXPECT_EQ(device.backing_file, "");
    ASSERT_TRUE(describe_block(root_.path(), {7, 1}, &device));
    EXPECT_EQ(device.backing_file, "");
    EXPECT_FALSE(describe_block(root_.path(), {9, 9}, &device));
}

TEST_F(user_sysfs, only_loop_devices_in_use_are_listed) {
    std::vector<BlockDevice> loops = loop_devices(root_.path());
    ASSERT_EQ(loops.size(), 1u);
    EXPECT_EQ(loops[0].dev, (DevNumber{7, 0}));
    EXPECT_TRUE(loop_devices(root_ / "absent").empty());
    EXPECT_TRUE(read_mounts(root_ / "absent").empty());
}

}  // namespace
