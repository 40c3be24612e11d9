// ctl/file.cpp: bitmap files that are written whole or not at all
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/file.h"

#include "ctl/app.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ctl {
namespace {

[[noreturn]] void file_failure(const std::string &path, const char *what) {
    throw Failure{fmt::format("can't {} {}: {}", what, path, strerror(errno))};
}

void write_all(int fd, const uint8_t *data, uint64_t size, const std::string &path) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            file_failure(path, "write");
        data += n;
        size -= static_cast<uint64_t>(n);
    }
}

void sync_directory_of(const std::string &path) {
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        file_failure(dir, "open");
    int rc = fsync(fd);
    close(fd);
    if (rc < 0)
        file_failure(dir, "sync");
}

sigset_t old_mask;  // one Uninterrupted at a time

}  // namespace

OutFile::OutFile(const std::string &path, uint64_t size) : path_(path) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        fd_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd_ < 0)
            file_failure(path, "open");
        return;
    }
    partial_ = path + ".partial";
    fd_ = open(partial_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ < 0)
        file_failure(partial_, "make");
    int rc = posix_fallocate(fd_, 0, static_cast<off_t>(size > 0 ? size : 1));
    if (rc == 0)
        return;
    close(fd_);
    unlink(partial_.c_str());
    throw Failure{fmt::format("can't reserve {} bytes for {}: {}", size, path, strerror(rc))};
}

OutFile::~OutFile() {
    if (fd_ >= 0)
        close(fd_);
    if (!partial_.empty())
        unlink(partial_.c_str());
}

void OutFile::commit(const uint8_t *data, uint64_t size) {
    write_all(fd_, data, size, path_);
    if (partial_.empty())
        return;
    if (ftruncate(fd_, static_cast<off_t>(size)) < 0 || fsync(fd_) < 0)
        file_failure(partial_, "sync");
    if (rename(partial_.c_str(), path_.c_str()) < 0)
        file_failure(path_, "replace");
    partial_.clear();
    sync_directory_of(path_);
}

std::vector<uint8_t> read_exactly(const std::string &path, uint64_t size) {
    int fd = path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        file_failure(path, "open");
    // One byte more tells a file that is too long.
    std::vector<uint8_t> data(size + 1);
    uint64_t got = 0;
    while (got < data.size()) {
        ssize_t n = read(fd, data.data() + got, data.size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            int error = errno;
            close(fd);
            errno = error;
            file_failure(path, "read");
        }
        if (n == 0)
            break;
        got += static_cast<uint64_t>(n);
    }
    close(fd);
    if (got != size)
        throw Failure{fmt::format(
            "{} holds {} bytes, but the bitmap has {}: give bits of this "
            "node, as \"bitmap get\" writes them",
            path, got > size ? fmt::format("more than {}", size) : std::to_string(got), size)};
    data.resize(size);
    return data;
}

Uninterrupted::Uninterrupted() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old_mask);
}

Uninterrupted::~Uninterrupted() {
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
}

}  // namespace ctl
