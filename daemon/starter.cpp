// daemon/starter.cpp: whoever started trakd, told how it went
// SPDX-License-Identifier: GPL-2.0-only
//
// The child writes one byte, 'R', or the reason for its failure, and closes the pipe. An empty
// answer is a child that died.
#include "daemon/starter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "daemon/options.h"

namespace trakd {

namespace {

constexpr char kReady = 'R';
constexpr char kFailed = 'F';

bool write_all(int fd, const std::string &text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return true;
}

}  // namespace

bool Starter::fork(int *status) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        fmt::print(stderr, "trakd: no pipe: {}\n", std::strerror(errno));
        *status = kExitFailed;
        return false;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        fmt::print(stderr, "trakd: no process: {}\n", std::strerror(errno));
        *status = kExitFailed;
        return false;
    }
    if (child != 0) {
        ::close(ends[1]);
        pipe_ = ends[0];
        return wait_for_child(status);
    }
    ::close(ends[0]);
    pipe_ = ends[1];
    ::setsid();
    (void)!::chdir("/");
    return true;
}

bool Starter::wait_for_child(int *status) const {
    std::string answer;
    char part[512];
    for (;;) {
        const ssize_t n = ::read(pipe_, part, sizeof(part));
        if (n > 0) {
            answer.append(part, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    if (answer.size() == 1 && answer[0] == kReady) {
        *status = kExitOk;
        return false;
    }
    const bool told = answer.size() > 1 && answer[0] == kFailed;
    fmt::print(stderr, "trakd: {}\n", told ? answer.substr(1) : "it died before it served");
    *status = kExitFailed;
    return false;
}

void Starter::ready() {
    if (pipe_ < 0) {
        return;
    }
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = 0; null >= 0 && fd < 3; ++fd) {
        ::dup2(null, fd);
    }
    (void)write_all(pipe_, std::string(1, kReady));
    ::close(pipe_);
    pipe_ = -1;
}

void Starter::fail(const std::string &why) {
    if (pipe_ < 0) {
        fmt::print(stderr, "trakd: {}\n", why);
        return;
    }
    (void)write_all(pipe_, kFailed + why);
    ::close(pipe_);
    pipe_ = -1;
}

}  // namespace trakd
