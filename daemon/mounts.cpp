// daemon/mounts.cpp: what is mounted where
// SPDX-License-Identifier: GPL-2.0-only
#include "daemon/mounts.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace trakd {

namespace {

constexpr char kType[] = "fuse.trakd";

std::string unescape(const std::string &text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

// Whether the uppermost mount at the path is a trakd's.
bool mounted_by_trakd(const std::string &path) {
    std::ifstream table("/proc/self/mountinfo");
    bool ours = false;
    for (std::string line; std::getline(table, line);) {
        const std::size_t rest = line.find(" - ");
        std::istringstream head(line);
        std::string skipped;
        std::string at;
        if (rest == std::string::npos ||
            !(head >> skipped >> skipped >> skipped >> skipped >> at) || unescape(at) != path) {
            continue;
        }
        std::string type;
        std::istringstream(line.substr(rest + 3)) >> type;
        ours = type == kType;
    }
    return ours;
}

// True for the mount of a server that has gone: it answers with an error at once, where a living
// server answers, or lets us wait. A child asks, and is given up on.
bool is_dead(const std::string &path) {
    const pid_t child = ::fork();
    if (child == 0) {
        struct stat st;
        ::_exit(::stat(path.c_str(), &st) != 0 && errno == ENOTCONN ? 1 : 0);
    }
    if (child < 0) {
        return false;
    }
    for (int tries = 0; tries < 500; ++tries) {
        int status = 0;
        if (::waitpid(child, &status, WNOHANG) == child) {
            return WIFEXITED(status) && WEXITSTATUS(status) == 1;
        }
        ::poll(nullptr, 0, 10);
    }
    ::kill(child, SIGKILL);
    return false;
}

// The path without symbolic links. Its last component is looked at by mount_point_take() first: it
// may be a mount that does not answer.
int resolve_parent(std::string *path, std::string *why) {
    const std::size_t slash = path->rfind('/');
    const std::string parent = slash == 0 ? "/" : path->substr(0, slash);
    const std::string name = path->substr(slash + 1);
    if (name.empty() || name == "." || name == "..") {
        return 0;
    }
    char resolved[PATH_MAX];
    if (::realpath(parent.c_str(), resolved) == nullptr) {
        *why = fmt::format("mount point {}: {}", *path, std::strerror(errno));
        return -1;
    }
    *path = std::string(std::strcmp(resolved, "/") == 0 ? "" : resolved) + "/" + name;
    return 0;
}

// Where a trakd's mount is at the path: -1 when it serves; a dead one is taken away.
int clear(const std::string &path, std::string *why) {
    if (!mounted_by_trakd(path)) {
        return 0;
    }
    if (!is_dead(path)) {
        *why = fmt::format("another trakd serves at {}: end it first, or mount elsewhere", path);
        return -1;
    }
    if (::umount2(path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) != 0) {
        *why = fmt::format("{} is the mount of a trakd that was killed, and can't be unmounted: {}",
                           path, std::strerror(errno));
        return -1;
    }
    return 0;
}

}  // namespace

int mount_point_take(std::string *mount_point, std::string *why) {
    if (resolve_parent(mount_point, why) != 0 || clear(*mount_point, why) != 0) {
        return -1;
    }
    char resolved[PATH_MAX];
    if (::realpath(mount_point->c_str(), resolved) == nullptr) {
        *why = fmt::format("mount point {}: {}", *mount_point, std::strerror(errno));
        return -1;
    }
    *mount_point = resolved;
    if (*mount_point == "/") {
        *why = "can't mount over /";
        return -1;
    }
    // Held until the process ends. Of two that start at the same moment the second finds it held,
    // or, once the first has mounted, the mount.
    const int fd = ::open(mount_point->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        *why = fmt::format("mount point {}: {}", *mount_point, std::strerror(errno));
        return -1;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        *why = fmt::format("another trakd starts at {}", *mount_point);
        ::close(fd);
        return -1;
    }
    if (clear(*mount_point, why) != 0) {
        ::close(fd);
        return -1;
    }
    return 0;
}

}  // namespace trakd
