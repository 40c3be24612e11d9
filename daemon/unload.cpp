// daemon/unload.cpp: the orderly end of the driver
// SPDX-License-Identifier: GPL-2.0-only
//
// The driver's own unload stops nodes and saves bitmaps, but does not say whether the saving went
// well. The session markers (docs/format.md) may go only where it did, so each filter is stopped
// and both of its bitmaps are saved by commands first, whose results are seen; the unload then
// finds nothing left to save.
#include "daemon/unload.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

#include "abi/trak_ioctl.h"
#include "daemon/report.h"
#include "driver/module/module.h"

namespace trakd {

namespace {

constexpr os_uaddr kRecordAddress = 0x10000;

// A command of our own: nobody's memory is reached but the record's.
template <typename Record> int command(std::uint32_t cmd, Record record) {
    const std::span<std::uint8_t> window(reinterpret_cast<std::uint8_t *>(&record), sizeof(record));
    const user::CallerScope caller({0, kRecordAddress, window});
    return user::chr_ioctl(cmd, kRecordAddress);
}

// One line of the status tree, without its newline; empty where there is none.
std::string status(std::uint32_t minor, const char *field) {
    std::string text;
    if (user::proc_read(fmt::format("trak/trak{}/{}", minor, field), &text) != 0) {
        return {};
    }
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// Minors of all nodes, ascending.
std::vector<std::uint32_t> minors() {
    std::vector<std::uint32_t> found;
    std::vector<user::ProcInfo> entries;
    if (user::proc_list("trak", &entries) != 0) {
        return found;
    }
    for (const user::ProcInfo &entry : entries) {
        std::uint32_t minor = 0;
        const char *end = entry.name.data() + entry.name.size();
        if (entry.name.starts_with("trak") &&
            std::from_chars(entry.name.data() + 4, end, minor).ptr == end) {
            found.push_back(minor);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

struct Filter {
    std::uint32_t minor;
    std::string dir;
    std::string uuid;
    bool saved;
};

int stop_filters(std::vector<Filter> *filters, std::string *why) {
    for (const std::uint32_t minor : minors()) {
        if (status(minor, "dev_type") != "filter") {
            continue;
        }
        if (const int rc = command(TRAK_STOP_NODE, trak_minor_arg{minor}); rc != 0) {
            *why = fmt::format("trak{} can't be stopped: {}", minor, std::strerror(-rc));
            return rc;
        }
        const int incr = command(TRAK_SAVE_BMP, trak_bmp_arg{minor, TRAK_BMP_INCR});
        const int diff = command(TRAK_SAVE_BMP, trak_bmp_arg{minor, TRAK_BMP_DIFF});
        if (incr != 0 || diff != 0) {
            report("trak{}: its bitmaps can't be saved in {} ({}): they will count as everything "
                   "changed",
                   minor, status(minor, "bmp_dir"), std::strerror(-(incr != 0 ? incr : diff)));
        }
        filters->push_back(
            {minor, status(minor, "bmp_dir"), status(minor, "uuid"), incr == 0 && diff == 0});
    }
    return 0;
}

int sync_dir(const std::string &dir) {
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return -errno;
    }
    const int rc = ::fsync(fd) != 0 ? -errno : 0;
    ::close(fd);
    return rc;
}

// The text of a marker; nothing where there is no marker at all.
std::optional<std::string> read_marker(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        return errno == ENOENT ? std::nullopt : std::optional<std::string>(std::string());
    }
    char text[4096];
    const ssize_t size = ::read(fd, text, sizeof(text));
    ::close(fd);
    return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
}

// Removes the marker of this session and of this node. Any other says that the files lacked writes
// before the node was made: it stays.
void drop_marker(const Filter &filter, const std::string &session) {
    const std::string path = fmt::format("{}/trak{}.session", filter.dir, filter.minor);
    const std::optional<std::string> text = read_marker(path);
    if (!text) {
        return;
    }
    const std::string lines = "\n" + *text;
    if (lines.find("\nsession=" + session + "\n") == std::string::npos ||
        lines.find("\nuuid=" + filter.uuid + "\n") == std::string::npos) {
        report(
            "{} is of another session: it stays, and the next attach counts everything as changed",
            path);
        return;
    }
    int rc = sync_dir(filter.dir);
    if (rc == 0 && ::unlink(path.c_str()) != 0) {
        rc = -errno;
    }
    if (rc == 0) {
        rc = sync_dir(filter.dir);
    }
    if (rc != 0) {
        report("the session marker {} can't be removed ({}): the next attach counts everything as "
               "changed",
               path, std::strerror(-rc));
    }
}

int unload_closed(Server *server, std::string *why) {
    const std::string busy = nodes_in_use();
    if (!busy.empty()) {
        *why = busy;
        return -EBUSY;
    }
    std::vector<Filter> filters;
    if (const int rc = stop_filters(&filters, why); rc != 0) {
        return rc;
    }
    if (const int rc = trak_cleanup(); rc != 0) {
        *why = fmt::format("the driver does not unload: {}", std::strerror(-rc));
        return rc;
    }
    for (const Filter &filter : filters) {
        if (filter.saved) {
            drop_marker(filter, server->session_id());
        }
    }
    return 0;
}

}  // namespace

std::string nodes_in_use() {
    std::string text;
    const std::vector<user::MountedThrough> mounts = user::mounted_through_nodes();
    for (const std::uint32_t minor : minors()) {
        const std::string count = status(minor, "use_cnt");
        if (count.empty() || count == "0") {
            continue;
        }
        text += fmt::format("{}trak{} ({}", text.empty() ? "" : ", ", minor, status(minor, "name"));
        for (const user::MountedThrough &mount : mounts) {
            if (os_minor(mount.dev) == minor) {
                text += fmt::format(", mounted at {} through {}", mount.mount_point, mount.block);
            }
        }
        text += ")";
    }
    return text;
}

int unload(Server *server, std::string *why) {
    server->gate().close();
    const int rc = unload_closed(server, why);
    if (rc != 0) {
        server->gate().open();
    }
    return rc;
}

}  // namespace trakd
