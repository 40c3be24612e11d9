// agent/image_qemu.cpp: images by qemu-img, and by qemu-nbd with libnbd
// SPDX-License-Identifier: GPL-2.0-only
//
// A qemu-nbd serves one image to one connection and ends with it. The connection is made before the
// server starts: the listening socket's name exists for a moment only, and nothing is left behind by
// an agent that is killed.
#include "agent/events.h"
#include "agent/files.h"
#include "agent/image.h"
#include "agent/process.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fmt/format.h>
#include <libnbd.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace agent {
namespace {

constexpr double close_limit_seconds = 600;  // a full cache of metadata, written to a slow store

struct Pair {
    files::Fd listener, client;
};

[[noreturn]] void fail_socket(const char *what) {
    throw Failure(fmt::format("can't {}: {}", what, strerror(errno)), errno);
}

Pair connected_pair() {
    char folder[] = "/tmp/trak-backup.XXXXXX";
    if (mkdtemp(folder) == nullptr)
        fail_socket("make a folder in /tmp");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s/s", folder);
    Pair pair;
    pair.listener.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    pair.client.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    auto *where = reinterpret_cast<sockaddr *>(&address);
    int rc = pair.listener.valid() && pair.client.valid() ? 0 : -1;
    if (rc == 0)
        rc = bind(pair.listener.get(), where, sizeof(address));
    if (rc == 0)
        rc = listen(pair.listener.get(), 1);
    if (rc == 0)
        rc = connect(pair.client.get(), where, sizeof(address));
    int error = errno;
    unlink(address.sun_path);
    rmdir(folder);
    errno = error;
    if (rc < 0)
        fail_socket("connect to a local socket");
    return pair;
}

class QemuIo : public ImageIo {
  public:
    QemuIo(const std::string &path, bool writable) : path_(path) {
        Pair pair = connected_pair();
        std::vector<std::string> words = {"qemu-nbd", "--format=qcow2", "--cache=writeback",
                                          "--discard=unmap"};
        if (!writable)
            words.push_back("--read-only");
        words.push_back(path);
        server_ = std::make_unique<Process>(words, pair.listener.get());
        pair.listener.reset(-1);
        nbd_ = nbd_create();
        if (nbd_ == nullptr)
            throw Failure(fmt::format("can't use libnbd: {}", nbd_get_error()));
        nbd_add_meta_context(nbd_, LIBNBD_CONTEXT_BASE_ALLOCATION);
        // libnbd owns the socket from here on.
        if (nbd_connect_socket(nbd_, pair.client.release()) < 0)
            broken("open");
        int64_t size = nbd_get_size(nbd_);
        if (size < 0)
            broken("open");
        size_ = static_cast<uint64_t>(size);
    }

    ~QemuIo() override {
        if (nbd_ != nullptr)
            nbd_close(nbd_);  // calls the completions of what is under way
    }

    uint64_t size() const override { return size_; }

    void read(uint64_t offset, void *data, size_t size, Done done) override {
        submit(nbd_aio_pread(nbd_, data, size, offset, completion(std::move(done)), 0), "read");
    }

    void write(uint64_t offset, const void *data, size_t size, Done done) override {
        submit(nbd_aio_pwrite(nbd_, data, size, offset, completion(std::move(done)), 0), "write");
    }

    void zero(uint64_t offset, uint64_t size, Done done) override {
        submit(nbd_aio_zero(nbd_, size, offset, completion(std::move(done)), 0), "write");
    }

    void turn(int wake_fd, int timeout_ms) override {
        pollfd fds[2] = {{nbd_aio_get_fd(nbd_), 0, 0}, {wake_fd, POLLIN, 0}};
        unsigned direction = nbd_aio_get_direction(nbd_);
        if ((direction & LIBNBD_AIO_DIRECTION_READ) != 0)
            fds[0].events |= POLLIN;
        if ((direction & LIBNBD_AIO_DIRECTION_WRITE) != 0)
            fds[0].events |= POLLOUT;
        int n = poll(fds, wake_fd >= 0 ? 2 : 1, timeout_ms);
        if (n < 0 && errno != EINTR)
            fail_socket("wait for qemu-nbd");
        if (n <= 0)
            return;
        direction = nbd_aio_get_direction(nbd_);
        int rc = 0;
        if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0 &&
            (direction & LIBNBD_AIO_DIRECTION_READ) != 0)
            rc = nbd_aio_notify_read(nbd_);
        else if ((fds[0].revents & POLLOUT) != 0 && (direction & LIBNBD_AIO_DIRECTION_WRITE) != 0)
            rc = nbd_aio_notify_write(nbd_);
        if (rc < 0 || nbd_aio_is_dead(nbd_) == 1 || nbd_aio_is_closed(nbd_) == 1)
            broken("use");
    }

    void finish() override {
        while (nbd_aio_in_flight(nbd_) > 0)
            turn(-1, 1000);
        if (nbd_is_read_only(nbd_) == 0 && nbd_flush(nbd_, 0) < 0)
            broken("flush");
        if (nbd_shutdown(nbd_, 0) < 0)
            broken("close");
        int status = server_->wait(close_limit_seconds);
        if (status != 0)
            broken("close");
    }

    bool holds_data(uint64_t offset, uint64_t wanted, uint64_t *length) override {
        struct Answer {
            uint64_t length = 0;
            bool data = true;
        } answer;
        auto take = [](void *user, const char *, uint64_t, uint32_t *entries, size_t count,
                       int *) -> int {
            auto *into = static_cast<Answer *>(user);
            for (size_t i = 0; i + 1 < count; i += 2) {
                bool data = (entries[i + 1] & LIBNBD_STATE_ZERO) == 0;
                if (into->length > 0 && data != into->data)
                    break;
                into->data = data;
                into->length += entries[i];
            }
            return 0;
        };
        uint64_t ask = std::min<uint64_t>(wanted, 1u << 30);
        nbd_extent_callback callback = {take, &answer, nullptr};
        if (nbd_can_meta_context(nbd_, LIBNBD_CONTEXT_BASE_ALLOCATION) != 1 ||
            nbd_block_status(nbd_, ask, offset, callback, 0) < 0 || answer.length == 0)
            answer = {ask, true};
        *length = std::min(answer.length, wanted);
        return answer.data;
    }

  private:
    [[noreturn]] void broken(const char *what) {
        const char *error = nbd_get_error();
        std::string why = error != nullptr ? error : "the server ended";
        // The server's own words say more, once it has ended.
        if (server_->wait(2) != -2 && !server_->said().empty())
            why = server_->said();
        throw Failure(fmt::format("can't {} the image {}: {}", what, path_, why));
    }

    void submit(int64_t cookie, const char *what) {
        if (cookie < 0)
            broken(what);
    }

    static nbd_completion_callback completion(Done done) {
        auto *held = new Done(std::move(done));
        auto call = [](void *user, int *error) -> int {
            (*static_cast<Done *>(user))(*error);
            return 1;
        };
        return {call, held, [](void *user) { delete static_cast<Done *>(user); }};
    }

    std::string path_;
    std::unique_ptr<Process> server_;
    nbd_handle *nbd_ = nullptr;
    uint64_t size_ = 0;
};

class QemuTool : public ImageTool {
  public:
    void create(const std::string &path, uint64_t size, uint32_t cluster_size,
                const std::string &backing) override {
        std::string options = fmt::format("cluster_size={}", cluster_size);
        std::vector<std::string> words = {"qemu-img", "create", "-q", "-f", "qcow2"};
        if (!backing.empty())
            words.insert(words.end(), {"-b", backing, "-F", "qcow2"});
        words.insert(words.end(), {"-o", options, path, std::to_string(size)});
        run_tool(words);
    }

    std::unique_ptr<ImageIo> open_for_writing(const std::string &path) override {
        return std::make_unique<QemuIo>(path, true);
    }

    std::unique_ptr<ImageIo> open_for_reading(const std::string &path) override {
        return std::make_unique<QemuIo>(path, false);
    }

    void check(const std::string &path) override {
        std::string said;
        int status = run_tool_status({"qemu-img", "check", "-q", "-f", "qcow2", path}, &said);
        if (status != 0)
            throw Failure(fmt::format("qemu-img check of {} is not content: {}", path,
                                      said.empty() ? fmt::format("exit status {}", status) : said));
    }

    void merge(const std::string &path, const std::string &to, uint32_t cluster_size,
               const std::string &backing) override {
        if (backing.empty()) {
            run_tool({"qemu-img", "convert", "-f", "qcow2", "-O", "qcow2", "-o",
                      fmt::format("cluster_size={}", cluster_size), path, to});
            return;
        }
        run_tool({"cp", "--reflink=auto", "--sparse=auto", path, to});
        run_tool({"qemu-img", "rebase", "-f", "qcow2", "-b", backing, "-F", "qcow2", to});
    }

    void compare(const std::string &one, const std::string &other) override {
        run_tool({"qemu-img", "compare", "-q", "-f", "qcow2", "-F", "qcow2", one, other});
    }
};

}  // namespace

std::unique_ptr<ImageTool> qemu_tool() {
    return std::make_unique<QemuTool>();
}

}  // namespace agent
