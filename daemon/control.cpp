// daemon/control.cpp: what requests do that enter the driver otherwise than by I/O
// SPDX-License-Identifier: GPL-2.0-only
#include "daemon/control.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "abi/trak_ioctl.h"
#include "os/task.h"

namespace trakd {

namespace {

// Where a buffer of ours lies for the driver when the caller's own address is not known.
constexpr os_uaddr kSomewhere = 0x10000;

// Inside the gate while it lives.
class Pass {
  public:
    explicit Pass(Gate *gate) : gate_(gate->enter() ? gate : nullptr) {}
    ~Pass() {
        if (gate_ != nullptr) {
            gate_->leave();
        }
    }
    Pass(const Pass &) = delete;
    Pass &operator=(const Pass &) = delete;
    explicit operator bool() const { return gate_ != nullptr; }

  private:
    Gate *gate_;
};

std::string slice(const std::string &text, std::uint64_t offset, std::size_t size) {
    return offset < text.size() ? text.substr(offset, size) : std::string();
}

int text_of(Server *server, Handle *handle) {
    switch (handle->what) {
    case What::kLog:
        handle->text = user::log_text();
        return 0;
    case What::kSession:
        handle->text = server->session_id() + "\n";
        return 0;
    case What::kParameter:
        handle->text = std::to_string(__atomic_load_n(handle->value, __ATOMIC_RELAXED)) + "\n";
        return 0;
    default:
        return user::proc_read(handle->path, &handle->text);
    }
}

}  // namespace

int control_open(Server *server, Ino ino, int flags, pid_t pid, Handle *handle) {
    Entry entry;
    if (const int rc = server->tree().get(ino, &entry); rc != 0) {
        return rc;
    }
    handle->what = entry.what;
    handle->path = entry.path;
    handle->value = entry.value;
    if (entry.what == What::kControl || entry.what == What::kNode) {
        const Pass pass(&server->gate());
        if (!pass) {
            return -ENODEV;
        }
        const user::CallerScope caller({pid, 0, {}});
        return entry.what == What::kControl ? user::chr_open()
                                            : server->open_node(entry.dev, flags, &handle->node);
    }
    if (entry.what == What::kDir) {
        return -EISDIR;
    }
    // Root may open anything for writing: what takes no writes says so here already.
    if (entry.what != What::kProc && (flags & O_ACCMODE) != O_RDONLY) {
        return -EACCES;
    }
    return 0;
}

void control_close(Server *server, Handle *handle) {
    const user::CallerScope nobody({0, 0, {}});
    if (handle->what == What::kNode) {
        server->close_node(&handle->node);
    } else if (handle->what == What::kControl) {
        user::chr_release();
    }
}

long control_read(Server *server, Handle *handle, std::uint64_t offset, std::size_t size, pid_t pid,
                  std::string *text) {
    if (handle->what == What::kControl) {
        const Pass pass(&server->gate());
        if (!pass) {
            return -ENODEV;
        }
        std::vector<std::uint8_t> buf(size);
        const user::CallerScope caller({pid, kSomewhere, buf});
        auto pos = static_cast<std::int64_t>(offset);
        const long got = user::chr_read(kSomewhere, size, &pos);
        if (got > 0) {
            text->assign(buf.begin(), buf.begin() + std::min<long>(got, static_cast<long>(size)));
        }
        return got;
    }
    const std::lock_guard lock(handle->mutex);
    if (offset == 0) {
        if (const int rc = text_of(server, handle); rc != 0) {
            return rc;
        }
    }
    *text = slice(handle->text, offset, size);
    return static_cast<long>(text->size());
}

long control_write(Server *server, Handle *handle, std::uint64_t offset, std::string_view text,
                   pid_t pid) {
    const Pass pass(&server->gate());
    if (!pass) {
        return -ENODEV;
    }
    if (handle->what == What::kProc) {
        return user::proc_write(handle->path, text);
    }
    if (handle->what != What::kControl) {
        return -EACCES;
    }
    std::vector<std::uint8_t> buf(text.begin(), text.end());
    const user::CallerScope caller({pid, kSomewhere, buf});
    auto pos = static_cast<std::int64_t>(offset);
    return user::chr_write(kSomewhere, buf.size(), &pos);
}

int control_ioctl(Server *server, fuse_req_t req, Handle *handle, std::uint32_t cmd, os_uaddr arg,
                  std::vector<std::uint8_t> *record) {
    const Pass pass(&server->gate());
    if (!pass) {
        return -ENODEV;
    }
    if (cmd == TRAK_STOP_NODE || cmd == TRAK_DEL_NODE) {
        trak_minor_arg named;
        std::memcpy(&named, record->data(), sizeof(named));
        server->await_releases(named.minor);
    }
    const user::CallerScope caller({fuse_req_ctx(req)->pid, arg, *record});
    fuse_req_interrupt_func(
        req, [](fuse_req_t, void *task) { user::send_signal(static_cast<os_task *>(task)); },
        os_current());
    const int rc = handle->what == What::kControl
                       ? user::chr_ioctl(cmd, arg)
                       : user::device_ioctl(handle->node.bdev, handle->node.mode, cmd, arg);
    fuse_req_interrupt_func(req, nullptr, nullptr);
    return rc;
}

}  // namespace trakd
