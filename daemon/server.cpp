// daemon/server.cpp: one mounted tree and all that serves it
// SPDX-License-Identifier: GPL-2.0-only
#include "daemon/server.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "daemon/report.h"
#include "os/random.h"

namespace trakd {

namespace {

// What libfuse has to say about a failed mount, in place of its own printing.
std::string g_fuse_said;

void fuse_says(fuse_log_level, const char *format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof(text), format, args);
    std::string line(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) {
        line.pop_back();
    }
    if (!line.empty()) {
        g_fuse_said = line;
        report("{}", line);
    }
}

std::string make_session_id() {
    std::uint8_t random[16];
    os_get_random_bytes(random, sizeof(random));
    std::string id = "trakd-";
    for (const std::uint8_t byte : random) {
        id += fmt::format("{:02x}", byte);
    }
    return id;
}

}  // namespace

bool Gate::enter() {
    const std::lock_guard lock(mutex_);
    if (closed_) {
        return false;
    }
    ++inside_;
    return true;
}

void Gate::leave() {
    const std::lock_guard lock(mutex_);
    if (--inside_ == 0) {
        quiet_.notify_all();
    }
}

void Gate::close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    quiet_.wait(lock, [this] { return inside_ == 0; });
}

void Gate::open() {
    const std::lock_guard lock(mutex_);
    closed_ = false;
}

Server::Server(std::string mount_point, Receivers::OnEnd on_end, void *arg)
    : mount_point_(std::move(mount_point)), on_end_(on_end), arg_(arg),
      session_id_(make_session_id()) {}

Server::~Server() {
    if (session_ != nullptr) {
        fuse_session_destroy(session_);
    }
}

int Server::mount(std::string *why) {
    fuse_set_log_func(fuse_says);
    // Another user than root may not let others in unless the machine's fuse.conf allows it.
    const char *options = geteuid() == 0
                              ? "fsname=trakd,subtype=trakd,default_permissions,allow_other"
                              : "fsname=trakd,subtype=trakd,default_permissions";
    fuse_args args = FUSE_ARGS_INIT(0, nullptr);
    if (fuse_opt_add_arg(&args, "trakd") != 0 || fuse_opt_add_arg(&args, "-o") != 0 ||
        fuse_opt_add_arg(&args, options) != 0) {
        *why = "no memory";
        return -1;
    }
    session_ = fuse_session_new(&args, &kOps, sizeof(kOps), this);
    fuse_opt_free_args(&args);
    if (session_ == nullptr || fuse_session_mount(session_, mount_point_.c_str()) != 0) {
        *why = fmt::format("can't mount at {}: {}", mount_point_,
                           g_fuse_said.empty() ? "libfuse gives no reason" : g_fuse_said);
        return -1;
    }
    mounted_ = true;
    return 0;
}

int Server::serve(std::string *why) {
    int rc = workers_.start();
    if (rc == 0) {
        rc = receivers_.start(session_, on_end_, arg_);
    }
    if (rc != 0) {
        *why = fmt::format("no threads to serve with: {}", std::strerror(rc));
        return -1;
    }
    return 0;
}

void Server::unmount() {
    if (!mounted_) {
        return;
    }
    mounted_ = false;
    if (geteuid() != 0) {
        fuse_session_unmount(session_);
    } else if (::umount2(mount_point_.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) != 0 &&
               errno != EINVAL && errno != ENOENT) {
        report("can't unmount {}: {}", mount_point_, std::strerror(errno));
    }
}

void Server::stop() {
    receivers_.stop();
    workers_.stop();
    // Completions of the platform end the rest.
    while (node_io_pending() != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void Server::close_all() {
    std::unordered_set<Handle *> left;
    {
        const std::lock_guard lock(handles_mutex_);
        left.swap(handles_);
    }
    for (Handle *handle : left) {
        const std::unique_ptr<Handle> owned(handle);
        if (owned->what == What::kNode) {
            close_node(&owned->node);
        } else if (owned->what == What::kControl) {
            const user::CallerScope nobody({0, 0, {}});
            user::chr_release();
        }
    }
}

Handle *Server::add(std::unique_ptr<Handle> handle) {
    const std::lock_guard lock(handles_mutex_);
    handles_.insert(handle.get());
    return handle.release();
}

void Server::drop(Handle *handle) {
    {
        const std::lock_guard lock(handles_mutex_);
        handles_.erase(handle);
    }
    delete handle;
}

int Server::open_node(os_dev_t dev, int open_flags, NodeOpen *open) {
    user::NodeInfo info;
    if (const int rc = user::node_info(dev, &info); rc != 0) {
        return rc;
    }
    const int access = open_flags & O_ACCMODE;
    if (access != O_RDONLY && info.read_only) {
        return -EROFS;
    }
    // A write of a part of a sector reads the rest of it.
    open->mode = OS_FMODE_READ | (access != O_RDONLY ? std::uint32_t{OS_FMODE_WRITE} : 0U);
    int rc = 0;
    open->bdev = user::open_device(dev, open->mode, &rc);
    if (open->bdev == nullptr) {
        return rc;
    }
    // The node can't go while it is open: what it says of itself now holds until the close.
    if (rc = user::node_info(dev, &info); rc != 0) {
        user::close_device(open->bdev, open->mode);
        return rc;
    }
    const std::lock_guard lock(handles_mutex_);
    std::weak_ptr<NodeFile> &known = files_[dev];
    open->file = known.lock();
    if (open->file == nullptr) {
        open->file = std::make_shared<NodeFile>(info);
        known = open->file;
    }
    return 0;
}

void Server::close_node(NodeOpen *open) {
    const os_dev_t dev = open->file->dev;
    open->file.reset();
    user::close_device(open->bdev, open->mode);
    open->bdev = nullptr;
    {
        const std::lock_guard lock(handles_mutex_);
        const auto known = files_.find(dev);
        if (known != files_.end() && known->second.expired()) {
            files_.erase(known);
        }
    }
    if (on_release) {
        on_release();
    }
}

void Server::release_asked(os_dev_t dev) {
    const std::lock_guard lock(releases_mutex_);
    ++releases_[dev];
}

void Server::release_done(os_dev_t dev) {
    const std::lock_guard lock(releases_mutex_);
    const auto known = releases_.find(dev);
    if (known != releases_.end() && --known->second == 0) {
        releases_.erase(known);
        released_.notify_all();
    }
}

bool Server::is_open(std::uint32_t minor) {
    const std::lock_guard lock(handles_mutex_);
    return std::any_of(files_.begin(), files_.end(), [minor](const auto &of) {
        return os_minor(of.first) == minor && !of.second.expired();
    });
}

void Server::await_releases(std::uint32_t minor) {
    // A close may have been read by a receiver that did not get further yet: a node that is really
    // in use costs this long.
    for (int tries = 0; tries < 50 && is_open(minor); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::unique_lock lock(releases_mutex_);
    released_.wait(lock, [this, minor] {
        return std::none_of(releases_.begin(), releases_.end(),
                            [minor](const auto &of) { return os_minor(of.first) == minor; });
    });
}

}  // namespace trakd
