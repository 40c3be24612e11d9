// tests/unit/lib/where_test.cpp: whether a path leads to a node, over a made-up machine
// SPDX-License-Identifier: GPL-2.0-only
#include "lib/trak_int.h"
#include "tests/unit/lib/fake_driver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <map>

#include <sys/sysmacros.h>

namespace {

using fake::TempDir;

// Paths of the machine: device number of the file system, or of the block special file.
struct Made {
    dev_t file_system = 0;
    dev_t block = 0;
};
std::map<std::string, Made> machine;

int stat_machine(const char *path, struct stat *st) {
    auto found = machine.find(path);
    if (found == machine.end())
        return -ENOENT;
    *st = {};
    st->st_dev = found->second.file_system;
    st->st_mode = found->second.block != 0 ? S_IFBLK : S_IFDIR;
    st->st_rdev = found->second.block;
    return 0;
}

struct Where : testing::Test {
    TempDir dir;
    trak *t = nullptr;
    char node[128] = "";
    void SetUp() override {
        machine.clear();
        machine["/"] = {makedev(8, 1), 0};
        open("/mnt/trakd");
        machine["/mnt/trakd"] = {makedev(0, 77), 0};
        machine["/mnt/trakd/.."] = {makedev(8, 1), 0};
        machine["/mnt/trakd/dev/trak/trak3"] = {makedev(0, 77), 0};
    }
    void TearDown() override { trak_close(t); }
    void open(const char *root) {
        trak_close(t);
        trak_seam seam = {};
        seam.ioctl = [](void *, uint32_t, void *) { return -EINVAL; };
        ASSERT_EQ(0, trak_open_fn(root, &seam, nullptr, &t));
        t->stat = stat_machine;
        snprintf(t->host, sizeof(t->host), "%s", dir.path("host").c_str());
    }
    // A block device in the made-up /sys: its own directory, linked from dev/block.
    std::string device(unsigned major, unsigned minor, const std::string &name) {
        std::string number = std::to_string(major) + ":" + std::to_string(minor);
        dir.make_dir("host/sys/dev/block");
        std::filesystem::create_directory_symlink(dir.make_dir("host/sys/devices/" + name),
                                                  dir.path("host/sys/dev/block/" + number));
        return "host/sys/devices/" + name + "/";
    }
    void loop(unsigned minor, const std::string &backing) {
        dir.put(device(7, minor, "loop" + std::to_string(minor)) + "loop/backing_file",
                backing + "\n");
    }
    int place(const std::string &path) { return trak_place(t, path.c_str(), node); }
};

TEST_F(Where, a_path_on_a_plain_disk_is_on_no_node) {
    device(8, 1, "sda1");
    EXPECT_EQ(0, place("/"));
    EXPECT_STREQ("", node);
}

TEST_F(Where, a_loop_device_on_a_node_file_is_that_node) {
    loop(0, "/mnt/trakd/dev/trak/trak3");
    machine["/"] = {makedev(7, 0), 0};
    EXPECT_EQ(1, place("/"));
    EXPECT_STREQ("trak3", node);
}

TEST_F(Where, a_path_that_does_not_exist_yet_lies_where_its_ancestor_lies) {
    loop(0, "/mnt/trakd/dev/trak/trak3");
    machine["/"] = {makedev(8, 1), 0};
    machine[dir.path()] = {makedev(7, 0), 0};
    EXPECT_EQ(1, place(dir.path("host/new")));
}

TEST_F(Where, a_partition_of_a_loop_device_counts) {
    loop(0, "/mnt/trakd/dev/trak/trak3");
    dir.put("host/sys/devices/loop0/loop0p1/partition", "1\n");
    std::filesystem::create_directory_symlink(dir.path("host/sys/devices/loop0/loop0p1"),
                                              dir.path("host/sys/dev/block/259:5"));
    machine["/"] = {makedev(259, 5), 0};
    EXPECT_EQ(1, place("/"));
}

TEST_F(Where, a_stacked_device_leads_to_its_slaves) {
    loop(4, "/mnt/trakd/dev/trak/trak3");
    std::string dm = device(253, 0, "dm-0");
    dir.put(dm + "slaves/sda1/dev", "8:1\n");
    dir.put(dm + "slaves/loop4/dev", "7:4\n");
    machine["/"] = {makedev(253, 0), 0};
    EXPECT_EQ(1, place("/"));
    EXPECT_STREQ("trak3", node);
}

TEST_F(Where, an_image_on_a_file_system_on_a_node_leads_there) {
    loop(0, "/mnt/trakd/dev/trak/trak3");
    loop(1, "/mnt/inner/image");
    machine["/mnt/inner/image"] = {makedev(7, 0), 0};
    machine["/"] = {makedev(7, 1), 0};
    EXPECT_EQ(1, place("/"));
}

TEST_F(Where, a_loop_device_on_a_plain_file_is_on_no_node) {
    loop(1, "/var/image");
    machine["/var/image"] = {makedev(8, 1), 0};
    machine["/"] = {makedev(7, 1), 0};
    EXPECT_EQ(0, place("/"));
}

TEST_F(Where, a_backing_file_out_of_reach_is_known_by_its_name) {
    std::string root = dir.make_dir("gone");
    open(root.c_str());
    loop(0, root + "/dev/trak/disk one (deleted)");
    machine["/"] = {makedev(7, 0), 0};
    EXPECT_EQ(1, place("/"));
    EXPECT_STREQ("disk", node);
}

TEST_F(Where, another_drivers_tree_is_not_ours) {
    loop(0, "/mnt/other/dev/trak/trak3");
    machine["/mnt/other/dev/trak/trak3"] = {makedev(0, 78), 0};
    machine["/"] = {makedev(7, 0), 0};
    EXPECT_EQ(0, place("/"));
}

TEST_F(Where, the_kernels_node_is_known_by_its_major) {
    open("/");
    if (std::filesystem::exists("/proc/trak"))
        GTEST_SKIP() << "the kernel module is loaded here";
    machine["/"] = {makedev(100, 4), 0};
    EXPECT_EQ(0, place("/")) << "no module, no node";
}

TEST_F(Where, a_file_system_without_a_device_is_told_apart) {
    machine["/"] = {makedev(0, 30), 0};
    EXPECT_EQ(2, place("/"));
}

TEST_F(Where, a_file_system_that_names_its_device_leads_there) {
    loop(0, "/mnt/trakd/dev/trak/trak3");
    dir.put("host/proc/self/mountinfo",
            "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
            "21 20 0:31 / /mnt/my\\040data rw shared:1 - btrfs /dev/loop\\0400 rw,subvol=/\n");
    machine["/dev/loop 0"] = {makedev(0, 5), makedev(7, 0)};
    machine["/"] = {makedev(0, 31), 0};
    EXPECT_EQ(1, place("/"));
}

TEST_F(Where, an_overlay_leads_to_its_upper_directory) {
    loop(0, "/mnt/trakd/dev/trak/trak3");
    dir.put("host/proc/self/mountinfo",
            "21 20 0:31 / / rw - overlay overlay rw,lowerdir=/a,upperdir=/u/p,workdir=/w\n");
    machine["/u/p"] = {makedev(7, 0), 0};
    machine["/"] = {makedev(0, 31), 0};
    EXPECT_EQ(1, place("/"));
}

TEST_F(Where, circles_end) {
    dir.put("host/proc/self/mountinfo",
            "21 20 0:31 / / rw - overlay overlay rw,lowerdir=/a,upperdir=/,workdir=/w\n");
    machine["/"] = {makedev(0, 31), 0};
    EXPECT_EQ(2, place("/"));
    loop(0, "/image");
    machine["/image"] = {makedev(7, 0), 0};
    machine["/"] = {makedev(7, 0), 0};
    EXPECT_EQ(0, place("/"));
}

TEST_F(Where, a_mangled_mount_table_is_survived) {
    dir.put("host/proc/self/mountinfo", "21 20 0:31\n\n21 20 0:31 - \n0:31 - overlay\n"
                                        "1 1 0:31 / / rw - overlay\n"
                                        "1 1 0:31 / / rw - overlay o upperdir=\n"
                                        "1 1 0:31 / / rw - x /\\9\\04 rw\n");
    machine["/"] = {makedev(0, 31), 0};
    EXPECT_EQ(2, place("/"));
}

}  // namespace
