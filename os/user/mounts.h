// os/user/mounts.h: what the machine has mounted, and through which loop devices
// SPDX-License-Identifier: GPL-2.0-only
//
// Read from the mount table (/proc/self/mountinfo) and /sys alone: no file system is touched, so
// that a question about a node's own file system never waits for the node.
#ifndef TRAK_OS_USER_MOUNTS_H
#define TRAK_OS_USER_MOUNTS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace user {

struct DevNumber {
    unsigned major = 0;
    unsigned minor = 0;
    bool operator==(const DevNumber &) const = default;
};

struct Mount {
    DevNumber dev;
    std::string root;  // the folder of the file system that is mounted
    std::string mount_point;
    std::string type;
    std::string source;
};

// One entry per line of mountinfo that can be read; in its order, escapes (\040) undone.
std::vector<Mount> parse_mountinfo(std::string_view text);

// The mount that a path lies on: the longest mount point above it, the later of equals (which
// hides the earlier). Null: none.
const Mount *mount_of(const std::vector<Mount> &mounts, std::string_view path);
// The same path, seen from the top of the mount's file system.
std::string path_in_file_system(const Mount &mount, std::string_view path);

// A block device of the machine as /sys describes it.
struct BlockDevice {
    std::string name;   // "loop0p1"
    std::string whole;  // "loop0": the disk that it is or is a part of
    DevNumber dev;
    std::string backing_file;  // of the disk, where it is a loop device; as the kernel names it
    bool is_partition() const { return name != whole; }
};

// The machine's tables below a root folder ("" for the real ones).
std::vector<Mount> read_mounts(const std::string &root);
bool describe_block(const std::string &root, DevNumber dev, BlockDevice *device);
// All loop devices that have a backing file; partitions not included.
std::vector<BlockDevice> loop_devices(const std::string &root);

// A small text file without its last newline; false when it can't be read.
bool read_small_file(const std::string &path, std::string *text);

}  // namespace user

#endif
