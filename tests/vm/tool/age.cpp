// tests/vm/tool/age.cpp: the life of a file system in a minute: many small files, every second deleted
// SPDX-License-Identifier: GPL-2.0-only
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

constexpr std::uint64_t kPerFolder = 2000;

std::string name_of(const std::string &folder, std::uint64_t n) {
    return folder + "/d" + std::to_string(n / kPerFolder) + "/f" + std::to_string(n);
}

// Writes `size` bytes of the file's own pattern; false when the disk is full.
bool write_file(const std::string &name, int flags, std::uint64_t size, Random &random) {
    const int fd = open(name.c_str(), flags | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0 && errno == ENOSPC)
        return false;
    if (fd < 0)
        die(name);
    std::string bytes(size, 0);
    for (char &byte : bytes)
        byte = static_cast<char>(random.next());
    const ssize_t n = write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno != ENOSPC)
        die(name);
    if (close(fd) != 0)
        die(name);
    return n == static_cast<ssize_t>(size);
}

}  // namespace

// Sizes vary about `bytes`, so that the holes do; some of the files that stay grow afterwards, into
// the holes of the others.
int age(const Words &words) {
    const std::string &folder = words[0];
    Random random(number(words[1]));
    const std::uint64_t files = number(words[2]), bytes = number(words[3]);
    std::uint64_t made = 0;
    for (; made < files; ++made) {
        if (made % kPerFolder == 0 &&
            mkdir((folder + "/d" + std::to_string(made / kPerFolder)).c_str(), 0755) != 0)
            die("mkdir");
        const std::uint64_t size = 1 + random.below(2 * bytes - 1);
        if (!write_file(name_of(folder, made), O_CREAT | O_EXCL, size, random))
            break;
    }
    if (made < files / 2)
        die("the disk is too small for half of the files");
    sync();
    for (std::uint64_t n = 0; n < made; n += 2)
        if (unlink(name_of(folder, n).c_str()) != 0)
            die("unlink");
    sync();
    for (std::uint64_t n = 1; n < made; n += 2)
        if (random.below(16) == 0 &&
            !write_file(name_of(folder, n), O_APPEND, 1 + random.below(3 * bytes), random))
            break;
    sync();
    std::printf("%lu files made, every second deleted\n", static_cast<unsigned long>(made));
    return 0;
}

}  // namespace vm_tool
