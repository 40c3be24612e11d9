// tests/vm/tool/request.cpp: requests of a disk that carry no data, one at a time
// SPDX-License-Identifier: GPL-2.0-only
#include <fcntl.h>
#include <linux/blkzoned.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

int range_ioctl(int fd, unsigned long code, std::uint64_t at, std::uint64_t bytes) {
    std::uint64_t range[2] = {at, bytes};
    return ioctl(fd, code, range);
}

int discard(int fd, std::uint64_t at, std::uint64_t bytes) {
    return range_ioctl(fd, BLKDISCARD, at, bytes);
}

int secure(int fd, std::uint64_t at, std::uint64_t bytes) {
    return range_ioctl(fd, BLKSECDISCARD, at, bytes);
}

// Never by writing zeros: where the disk can't do it, it fails.
int zeroes(int fd, std::uint64_t at, std::uint64_t bytes) {
    return fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(at),
                     static_cast<off_t>(bytes));
}

int zones(int fd, std::uint64_t at, std::uint64_t) {
    alignas(blk_zone_report) unsigned char bytes[sizeof(blk_zone_report) + sizeof(blk_zone)] = {};
    blk_zone_report report{};
    report.sector = at / 512;
    report.nr_zones = 1;
    std::memcpy(bytes, &report, sizeof report);
    return ioctl(fd, BLKREPORTZONE, bytes);
}

int reset_zone(int fd, std::uint64_t at, std::uint64_t bytes) {
    blk_zone_range range{at / 512, bytes / 512};
    return ioctl(fd, BLKRESETZONE, &range);
}

struct Kind {
    const char *name;
    int (*send)(int fd, std::uint64_t at, std::uint64_t bytes);
};

constexpr Kind kKinds[] = {{"discard", discard},
                           {"secure", secure},
                           {"zeroes", zeroes},
                           {"zones", zones},
                           {"reset-zone", reset_zone}};

}  // namespace

// Says how it ended, for the test to judge: "passed" or the error's text.
int request(const Words &words) {
    const int fd = open(words[0].c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        die(words[0]);
    for (const Kind &kind : kKinds) {
        if (words[1] != kind.name)
            continue;
        const int rc = kind.send(fd, number(words[2]), number(words[3]));
        std::printf("%s\n", rc == 0 ? "passed" : std::strerror(errno));
        return close(fd) == 0 ? 0 : 1;
    }
    std::printf("there is no request %s\n", words[1].c_str());
    return 1;
}

// The file system writes its log and nothing else, and takes nothing more: what a power cut leaves.
int shut_down(const Words &words) {
    constexpr unsigned long kGoingDown = _IOR('X', 125, std::uint32_t);
    std::uint32_t flush_log = 1;
    const int fd = open(words[0].c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ioctl(fd, kGoingDown, &flush_log) != 0)
        die(words[0]);
    return close(fd) == 0 ? 0 : 1;
}

}  // namespace vm_tool
