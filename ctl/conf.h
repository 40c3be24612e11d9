// ctl/conf.h: /etc/trak/*.conf, the disks that are attached at boot
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ctl {

inline constexpr const char *conf_default = "/etc/trak";

// One disk, as its file says (trak.conf(5)).
struct ConfDisk {
    std::string file;  // where it was read from
    std::string disk;  // absolute, at most TRAK_PATH_SIZE - 1 bytes, as the directory
    uint32_t minor = 0;
    uint32_t extent_size = 65536;  // bytes: a power of two, 4096 to 2 GiB
    std::string bitmaps = "/var/lib/trak";
    std::string name;            // empty: the driver's own
    uint32_t wait_seconds = 30;  // for the disk to appear
};

struct Conf {
    std::vector<ConfDisk> disks;  // in the order in which they are attached
    // What was refused, one sentence a file: "FILE:LINE: ...", or "FILE: ..." of a file as a whole.
    std::vector<std::string> faults;
};

// The text of one file; `file` is for sentences. Throws Failure, one of Conf::faults.
ConfDisk parse_conf(const std::string &file, const std::string &text);

// Every NAME.conf of the folder at `path`, in the order of their bytes, or the file at `path`. Files
// that are wrong, and files that claim a minor, a name or a disk of an earlier one, are faults; the
// others count all the same. Throws Failure where `path` itself can't be read.
Conf read_conf(const std::string &path);

// Whether two names are the same block device, or the same name.
bool same_disk(const std::string &a, const std::string &b);

}  // namespace ctl
