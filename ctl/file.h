// ctl/file.h: bitmap files that are written whole or not at all
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ctl {

// A file that gets its contents in one go. The constructor makes a file beside `path` and reserves
// its room, so that commit() rarely fails; commit() syncs it and puts it in place. A path that is
// something other than a regular file (a device, a pipe) is written directly. Both throw Failure.
// Without a commit nothing is left behind.
class OutFile {
  public:
    OutFile(const std::string &path, uint64_t size);
    OutFile(const OutFile &) = delete;
    OutFile &operator=(const OutFile &) = delete;
    ~OutFile();
    void commit(const uint8_t *data, uint64_t size);

  private:
    std::string path_, partial_;  // partial_: empty where path_ is written directly
    int fd_ = -1;
};

// The whole of a file ("-": standard input), which must have `size` bytes. Throws Failure.
std::vector<uint8_t> read_exactly(const std::string &path, uint64_t size);

// While it lives, no signal ends the program: what was taken from the driver must not be lost.
class Uninterrupted {
  public:
    Uninterrupted();
    Uninterrupted(const Uninterrupted &) = delete;
    Uninterrupted &operator=(const Uninterrupted &) = delete;
    ~Uninterrupted();
};

}  // namespace ctl
