// agent/files.cpp: files that are durable when a call says so
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace agent::files {

std::function<int(const char *call, const std::string &path)> hook;

namespace {

[[noreturn]] void fail(const char *what, const std::string &path, int error) {
    throw Failure(fmt::format("can't {} {}: {}", what, path, strerror(error)), error);
}

// Whether the call shall be made.
bool ask(const char *call, const std::string &path) {
    int answer = hook ? hook(call, path) : 0;
    if (answer > 0)
        fail(call, path, answer);
    return answer == 0;
}

}  // namespace

void Fd::reset(int fd) {
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

Fd open_file(const std::string &path, int flags, unsigned mode) {
    ask("open", path);
    int fd;
    do
        fd = open(path.c_str(), flags | O_CLOEXEC, mode);
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
        fail("open", path, errno);
    return Fd(fd);
}

std::optional<std::vector<uint8_t>> read_file(const std::string &path) {
    ask("open", path);
    Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid() && errno == ENOENT)
        return std::nullopt;
    if (!fd.valid())
        fail("open", path, errno);
    struct stat st;
    if (fstat(fd.get(), &st) < 0)
        fail("look at", path, errno);
    std::vector<uint8_t> data(static_cast<size_t>(st.st_size));
    data.resize(read_at(fd.get(), data.data(), data.size(), 0, path));
    return data;
}

std::optional<std::string> read_text(const std::string &path) {
    auto data = read_file(path);
    if (!data)
        return std::nullopt;
    return std::string(data->begin(), data->end());
}

void write_at(int fd, const void *data, size_t size, uint64_t offset, const std::string &path) {
    ask("write", path);
    const auto *bytes = static_cast<const uint8_t *>(data);
    while (size > 0) {
        ssize_t n = pwrite(fd, bytes, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            fail("write", path, n < 0 ? errno : ENOSPC);
        bytes += n;
        size -= static_cast<size_t>(n);
        offset += static_cast<uint64_t>(n);
    }
}

size_t read_at(int fd, void *data, size_t size, uint64_t offset, const std::string &path) {
    ask("read", path);
    auto *bytes = static_cast<uint8_t *>(data);
    size_t got = 0;
    while (got < size) {
        ssize_t n = pread(fd, bytes + got, size - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail("read", path, errno);
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    return got;
}

void sync_file(int fd, const std::string &path) {
    if (ask("sync", path) && fsync(fd) < 0)
        fail("sync", path, errno);
}

void sync_path(const std::string &path) {
    Fd fd = open_file(path, O_RDONLY, 0);
    sync_file(fd.get(), path);
}

void write_synced(const std::string &path, const void *data, size_t size) {
    Fd fd = open_file(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
    write_at(fd.get(), data, size, 0, path);
    sync_file(fd.get(), path);
}

void replace_durably(const std::string &path, const void *data, size_t size) {
    std::string partial = path + ".new";
    try {
        write_synced(partial, data, size);
        rename_file(partial, path);
    } catch (...) {
        unlink(partial.c_str());
        throw;
    }
    sync_path(folder_of(path));
}

void replace_durably(const std::string &path, const std::string &text) {
    replace_durably(path, text.data(), text.size());
}

void rename_file(const std::string &from, const std::string &to) {
    ask("rename", from);
    if (rename(from.c_str(), to.c_str()) < 0)
        fail("rename", from, errno);
}

void remove_file(const std::string &path) {
    ask("remove", path);
    if (unlink(path.c_str()) < 0 && errno != ENOENT)
        fail("remove", path, errno);
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

uint64_t size_of(const std::string &path) {
    ask("look at", path);
    struct stat st;
    if (stat(path.c_str(), &st) < 0)
        fail("look at", path, errno);
    return static_cast<uint64_t>(st.st_size);
}

std::vector<std::string> names_in(const std::string &folder) {
    ask("open", folder);
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(folder.c_str()), closedir);
    if (!dir)
        fail("open", folder, errno);
    std::vector<std::string> names;
    while (dirent *entry = readdir(dir.get())) {
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

uint64_t free_bytes(const std::string &folder) {
    ask("look at", folder);
    struct statvfs fs;
    if (statvfs(folder.c_str(), &fs) < 0)
        fail("look at", folder, errno);
    return static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize;
}

std::string absolute(const std::string &path) {
    std::unique_ptr<char, void (*)(void *)> real(realpath(path.c_str(), nullptr), free);
    if (!real)
        fail("find", path, errno);
    return real.get();
}

std::string folder_of(const std::string &path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace agent::files
