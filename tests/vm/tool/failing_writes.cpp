// tests/vm/tool/failing_writes.cpp: writes by a process that the kernel lets fail
// SPDX-License-Identifier: GPL-2.0-only
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "tests/vm/tool/faults.h"
#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

constexpr std::size_t kSector = 512, kMost = 128 * kSector;

}  // namespace

// Writes past the cache, one after the other, by a marked process: each passes or fails with what is stated.
// Says how many of them did.
int failing_writes(const Words &words) {
    const int fd = open(words[0].c_str(), O_RDWR | O_DIRECT | O_CLOEXEC);
    const off_t size = fd < 0 ? -1 : lseek(fd, 0, SEEK_END);
    if (size < static_cast<off_t>(kMost))
        die(words[0]);
    // What this process itself needs is there before anything fails.
    const int own = open("/proc/self/make-it-fail", O_WRONLY | O_CLOEXEC);
    const auto mark_self = [own](const char *text) {
        if (pwrite(own, text, 1, 0) != 1)
            die("make-it-fail");
    };
    Random random(number(words[1]));
    unsigned char *data = locked_pages(kMost);
    std::map<int, unsigned> tally = {{0, 0}, {EIO, 0}, {ENOMEM, 0}};
    stay_in_memory();
    mark_self("1");
    for (std::uint64_t n = number(words[2]); n > 0; --n) {
        const std::size_t bytes = kSector * (1 + random.below(kMost / kSector));
        const auto last = static_cast<std::uint64_t>(size) - bytes;
        std::memset(data, static_cast<int>(random.next()), bytes);
        const ssize_t done =
            pwrite(fd, data, bytes, static_cast<off_t>(random.below(last / kSector) * kSector));
        ++tally[done >= 0 ? 0 : errno];
    }
    mark_self("0");
    bool stated = true;
    for (const auto &[error, count] : tally) {
        stated = stated && (error == 0 || error == EIO || error == ENOMEM);
        if (count != 0)
            std::printf("%s: %u\n", error == 0 ? "passed" : std::strerror(error), count);
    }
    return stated && close(fd) == 0 ? 0 : 1;
}

}  // namespace vm_tool
