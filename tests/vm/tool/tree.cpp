// tests/vm/tool/tree.cpp: the files of a tree: what they hold, and a program that never lets them rest
// SPDX-License-Identifier: GPL-2.0-only
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

constexpr std::uint64_t kNames = 150;

std::uint64_t hash_of_file(const std::string &name, std::uint64_t *size) {
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        die(name);
    std::uint64_t hash = 0;
    *size = 0;
    std::vector<unsigned char> bytes(65536);
    for (ssize_t n; (n = read(fd, bytes.data(), bytes.size())) != 0;) {
        if (n < 0)
            die(name);
        *size += static_cast<std::uint64_t>(n);
        for (ssize_t i = 0; i < n; ++i)
            hash = (hash ^ bytes[static_cast<std::size_t>(i)]) * 0x100000001B3u;
    }
    close(fd);
    return hash;
}

void rewrite(const std::string &name, int flags, Random &random) {
    const int fd = open(name.c_str(), flags | O_CLOEXEC, 0644);
    if (fd < 0 && (errno == ENOENT || errno == ENOSPC))
        return;
    if (fd < 0)
        die(name);
    const std::vector<char> bytes(1 + random.below(30000), static_cast<char>(random.next()));
    const off_t at = (flags & O_TRUNC) != 0 ? 0 : static_cast<off_t>(random.below(20000));
    if (pwrite(fd, bytes.data(), bytes.size(), at) < 0 && errno != ENOSPC)
        die(name);
    if (random.below(20) == 0 && fsync(fd) != 0 && errno != ENOSPC)
        die(name);
    close(fd);
}

}  // namespace

// A line a file, by name, with paths from the folder.
int sums(const Words &words) {
    namespace fs = std::filesystem;
    std::vector<std::string> names;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(words[0]))
        if (entry.is_regular_file())
            names.push_back(entry.path().string());
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        std::uint64_t size = 0;
        const std::uint64_t hash = hash_of_file(name, &size);
        std::printf("%016lx %lu %s\n", static_cast<unsigned long>(hash),
                    static_cast<unsigned long>(size), name.substr(words[0].size()).c_str());
    }
    return 0;
}

// Makes, rewrites, renames and deletes files until there is a file STOP.
int churn(const Words &words) {
    Random random(number(words[1]));
    const auto name = [&] { return words[0] + "/c" + std::to_string(random.below(kNames)); };
    std::uint64_t steps = 0;
    for (; steps % 16 != 0 || access(words[2].c_str(), F_OK) != 0; ++steps) {
        switch (random.below(5)) {
        case 0:
            (void)unlink(name().c_str());
            break;
        case 1:
            (void)std::rename(name().c_str(), name().c_str());
            break;
        case 2:
            rewrite(name(), O_WRONLY, random);
            break;
        default:
            rewrite(name(), O_WRONLY | O_CREAT | O_TRUNC, random);
        }
    }
    std::printf("%lu steps\n", static_cast<unsigned long>(steps));
    return 0;
}

// Fills so many MiB of memory over and over until there is a file STOP.
int eat(const Words &words) {
    const std::size_t size = number(words[0]) << 20;
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        die("mmap");
    for (int round = 1; access(words[1].c_str(), F_OK) != 0; ++round)
        std::memset(memory, round, size);
    return 0;
}

}  // namespace vm_tool
