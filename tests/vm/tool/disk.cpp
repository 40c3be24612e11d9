// tests/vm/tool/disk.cpp: what is on a disk, extent by extent; whether a map tells of every change
// SPDX-License-Identifier: GPL-2.0-only
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

constexpr std::size_t kBuffer = 1u << 20;
constexpr std::size_t kSector = 512;

struct Free {
    void operator()(void *p) const { std::free(p); }
};
using Buffer = std::unique_ptr<std::uint8_t, Free>;

// As direct I/O wants it.
Buffer buffer(std::size_t bytes) {
    auto *p = static_cast<std::uint8_t *>(std::aligned_alloc(4096, bytes));
    if (p == nullptr)
        die("memory");
    return Buffer(p);
}

int open_or_die(const std::string &name, int flags) {
    const int fd = open(name.c_str(), flags | O_CLOEXEC);
    if (fd < 0)
        die(name);
    return fd;
}

std::uint64_t hash_of(const std::uint8_t *bytes, std::size_t size) {
    std::uint64_t hash = size;
    for (std::size_t i = 0; i + 8 <= size; i += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + i, 8);
        hash = (hash ^ word) * 0x9E3779B97F4A7C15u;
        hash ^= hash >> 29;
    }
    return hash;
}

std::vector<std::uint8_t> contents(const std::string &name) {
    std::FILE *file = std::fopen(name.c_str(), "rb");
    if (file == nullptr)
        die(name);
    std::vector<std::uint8_t> bytes;
    std::uint8_t block[65536];
    for (std::size_t n; (n = std::fread(block, 1, sizeof block, file)) > 0;)
        bytes.insert(bytes.end(), block, block + n);
    if (std::ferror(file) != 0)
        die(name);
    std::fclose(file);
    return bytes;
}

struct Comparison {
    bool fits = false;
    std::size_t extents = 0, different = 0, marked = 0, lost = 0;
};

std::uint64_t hash_at(const std::vector<std::uint8_t> &hashes, std::size_t n) {
    std::uint64_t hash = 0;
    std::memcpy(&hash, hashes.data() + 8 * n, 8);
    return hash;
}

// A map beside what changed between two files of hashes; names the first extents that it lacks.
Comparison compare(const std::string &before_name, const std::string &after_name,
                   const std::string &bits_name) {
    const std::vector<std::uint8_t> before = contents(before_name), after = contents(after_name),
                                    bits = contents(bits_name);
    Comparison c;
    c.extents = before.size() / 8;
    c.fits = before.size() == after.size() && bits.size() >= (c.extents + 7) / 8 && c.extents != 0;
    if (!c.fits) {
        std::printf("%zu, %zu bytes of hashes and %zu of bits don't go together\n", before.size(),
                    after.size(), bits.size());
        return c;
    }
    for (std::size_t n = 0; n < c.extents; ++n) {
        const bool set = (bits[n / 8] >> (n % 8)) % 2 == 1;
        const bool differs = hash_at(before, n) != hash_at(after, n);
        c.marked += set;
        c.different += differs;
        if (differs && !set && c.lost++ < 10)
            std::fprintf(stderr, "extent %zu has changed and is not marked\n", n);
    }
    return c;
}

}  // namespace

// Eight bytes an extent into a file; past the cache, which is not the disk.
int hash(const Words &words) {
    const std::uint64_t extent = number(words[1]);
    if (extent < kSector || extent > kBuffer)
        die("extent size");
    const int fd = open_or_die(words[0], O_RDONLY | O_DIRECT);
    std::FILE *out = std::fopen(words[2].c_str(), "wb");
    if (out == nullptr)
        die(words[2]);
    const Buffer bytes = buffer(kBuffer);
    for (;;) {
        const ssize_t n = read(fd, bytes.get(), kBuffer);
        if (n < 0)
            die(words[0]);
        if (n == 0)
            break;
        for (std::size_t at = 0; at < static_cast<std::size_t>(n); at += extent) {
            const std::size_t rest = static_cast<std::size_t>(n) - at;
            const std::uint64_t is = hash_of(bytes.get() + at, rest < extent ? rest : extent);
            if (std::fwrite(&is, sizeof is, 1, out) != 1)
                die(words[2]);
        }
    }
    close(fd);
    if (std::fflush(out) != 0 || fsync(fileno(out)) != 0 || std::fclose(out) != 0)
        die(words[2]);
    return 0;
}

// Every extent that differs has its bit set, and no more than so many of a hundred are.
int changed(const Words &words) {
    const Comparison c = compare(words[0], words[1], words[2]);
    if (!c.fits)
        return 1;
    std::printf("%zu of %zu extents changed, %zu marked, %zu lost\n", c.different, c.extents,
                c.marked, c.lost);
    return c.lost != 0 || c.marked * 100 > c.extents * number(words[3]) ? 1 : 0;
}

// How a map that was attached past every guard stands to what is on the disk after a crash. It must
// be one of three: every extent; those that changed and no others; or some of those, because the file
// looked clean when the power went. A map with an extent that did not change is none of them.
int judge(const Words &words) {
    const Comparison c = compare(words[0], words[1], words[2]);
    if (!c.fits)
        return 1;
    if (c.marked == c.extents)
        std::printf("everything\n");
    else if (c.marked + c.lost != c.different)
        std::printf("wrong\n");
    else
        std::printf("%s\n", c.lost == 0 ? "exact" : "window");
    return c.marked == c.extents || c.marked + c.lost == c.different ? 0 : 1;
}

namespace {

// One request of `discards` is a discard; none where it is 0.
int write_at_random(const Words &words, std::uint64_t discards) {
    const int fd = open_or_die(words[0], O_RDWR | O_DIRECT);
    Random random(number(words[1]));
    const std::uint64_t count = number(words[2]), most = number(words[3]) / kSector;
    std::uint64_t bytes = 0;
    if (ioctl(fd, BLKGETSIZE64, &bytes) != 0 || most == 0 || most * kSector > kBuffer ||
        bytes < kBuffer)
        die(words[0]);
    const Buffer data = buffer(kBuffer);
    for (std::uint64_t n = 0; count == 0 || n < count; ++n) {
        const std::uint64_t size = (1 + random.below(most)) * kSector;
        const std::uint64_t at = random.below((bytes - size) / kSector + 1) * kSector;
        if (discards != 0 && random.below(discards) == 0) {
            std::uint64_t range[2] = {at, size};
            if (ioctl(fd, BLKDISCARD, range) != 0 && errno != EOPNOTSUPP)
                die("discard");
            continue;
        }
        for (std::size_t i = 0; i < size; i += 8) {
            const std::uint64_t word = random.next();
            std::memcpy(data.get() + i, &word, 8);
        }
        if (pwrite(fd, data.get(), size, static_cast<off_t>(at)) != static_cast<ssize_t>(size))
            die("write");
        if (random.below(25) == 0 && fdatasync(fd) != 0)
            die("flush");
    }
    return fsync(fd) != 0 || close(fd) != 0 ? 1 : 0;
}

}  // namespace

// Writes at random, past the cache: sizes and places in sectors, each sector with words of its own;
// a flush and a discard now and then. COUNT 0: until somebody ends it.
int scribble(const Words &words) {
    return write_at_random(words, 40);
}

// The same without discards: whatever it touches is another thing afterwards.
int writes(const Words &words) {
    return write_at_random(words, 0);
}

}  // namespace vm_tool
