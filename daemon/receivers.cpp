// daemon/receivers.cpp: the threads that take requests from the kernel
// SPDX-License-Identifier: GPL-2.0-only
#include "daemon/receivers.h"

#include <linux/fuse.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <utility>

#include "daemon/fuse_api.h"
#include "daemon/report.h"
#include "daemon/thread.h"

namespace trakd {

namespace {

// Receivers that stay when there is little to do.
constexpr int kKept = 4;

// A write's payload follows two headers. Reading the request that far before a page's end puts the
// payload on a page of its own: it can go to a disk without being copied.
constexpr std::size_t kHeaders = sizeof(fuse_in_header) + sizeof(fuse_write_in);
constexpr std::size_t kReceived = kHeaders + kMaxIo;
constexpr std::size_t kOffset = kPage - kHeaders;

thread_local Buffer *t_memory;

bool may_sleep(const std::uint8_t *request) {
    fuse_in_header header;
    std::memcpy(&header, request, sizeof(header));
    return header.opcode == FUSE_READ || header.opcode == FUSE_WRITE || header.opcode == FUSE_FSYNC;
}

}  // namespace

int Receivers::start(fuse_session *session, OnEnd on_end, void *arg) {
    session_ = session;
    on_end_ = on_end;
    arg_ = arg;
    // The signal only makes read() return. Other threads never get it.
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR2, &action, nullptr);
    for (int i = 0; i < kKept; ++i) {
        if (const int rc = add_thread(); rc != 0) {
            return rc;
        }
    }
    return 0;
}

int Receivers::add_thread() {
    const std::lock_guard lock(mutex_);
    if (stopping_) {
        return ECANCELED;
    }
    threads_.push_back({this, {}, Buffer::get(kPage + kMaxIo)});
    Thread &thread = threads_.back();
    if (!thread.memory) {
        threads_.pop_back();
        return ENOMEM;
    }
    // Counted from here on: the thread reads as soon as it runs.
    reading_.fetch_add(1);
    ++staying_;
    const int rc = thread_start("trakd-io", run, &thread, nullptr);
    if (rc != 0) {
        reading_.fetch_sub(1);
        --staying_;
        threads_.pop_back();
    }
    return rc;
}

void *Receivers::run(void *thread) {
    pthread_setname_np(pthread_self(), "trakd-io");
    Thread *self = static_cast<Thread *>(thread);
    self->owner->loop(self);
    return nullptr;
}

void Receivers::loop(Thread *self) {
    {
        const std::lock_guard lock(mutex_);
        self->id = pthread_self();
    }
    t_memory = &self->memory;
    while (!stopping_ && !surplus() && receive(self)) {
    }
    t_memory = nullptr;
    reading_.fetch_sub(1);
    const std::lock_guard lock(mutex_);
    threads_.remove_if([self](const Thread &thread) { return &thread == self; });
    gone_.notify_all();
}

// True where more receivers read than anything needs: one of them ends.
bool Receivers::surplus() {
    if (reading_.load() <= kKept) {
        return false;
    }
    const std::lock_guard lock(mutex_);
    if (staying_ <= 2 * kKept) {
        return false;
    }
    --staying_;
    return true;
}

// One request; false when there will be no more.
bool Receivers::receive(Thread *self) {
    std::uint8_t *request = self->memory.data() + kOffset;
    const ssize_t size = ::read(fuse_session_fd(session_), request, kReceived);
    if (size < 0) {
        switch (errno) {
        case ENOENT:  // the request was taken back before it was read
        case EINTR:
        case EAGAIN:
            return true;
        default:
            ended();
            return false;
        }
    }
    if (static_cast<std::size_t>(size) < sizeof(fuse_in_header)) {
        ended();
        return false;
    }
    if (reading_.fetch_sub(1) == 1 && may_sleep(request)) {
        (void)add_thread();  // without memory or threads the others have to do
    }
    fuse_buf buf = {};
    buf.size = static_cast<std::size_t>(size);
    buf.mem = request;
    fuse_session_process_buf(session_, &buf);
    reading_.fetch_add(1);
    return true;
}

void Receivers::ended() {
    if (!stopping_ && !told_.exchange(true)) {
        on_end_(arg_);
    }
}

void Receivers::stop() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    while (!threads_.empty()) {
        for (const Thread &thread : threads_) {
            if (thread.id != pthread_t{}) {
                pthread_kill(thread.id, SIGUSR2);
            }
        }
        // A thread that looked at stopping_ just before it was set misses the signal: it gets
        // another.
        gone_.wait_for(lock, std::chrono::milliseconds(20));
    }
}

Buffer Receivers::take_payload(const void *data) {
    if (t_memory == nullptr || data != t_memory->data() + kPage) {
        return {};
    }
    Buffer other = Buffer::get(kPage + kMaxIo);
    if (other) {
        std::swap(other, *t_memory);
    }
    return other;
}

}  // namespace trakd
