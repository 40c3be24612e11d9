// daemon/receivers.cpp: the threads that take requests from the kernel
// SPDX-License-Identifier: GPL-2.0-only
#include "daemon/receivers.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>
#include <utility>

#include "daemon/fuse_api.h"
#include "daemon/thread.h"

namespace trakd {

namespace {

using std::chrono::milliseconds;

// Receivers that stay, parked, when there is little to do.
constexpr int kSpare = 3;
constexpr int kCalmAtMost = 4;
constexpr unsigned kDepth = 128;

// Requests read before those before them are handed over: many go to the disk at less cost, few wait
// for each other less.
constexpr unsigned kTogether = 4;

constexpr milliseconds kLook{5};
constexpr int kQuietLooks = 40;  // without a request taken, until the lookout sleeps
constexpr int kCalmLooks = 100;  // without a receiver that sleeps, until one reads alone again

// A write's payload follows two headers. Reading the request that far before a page's end puts the
// payload on a page of its own: it can go to a disk without being copied.
constexpr std::size_t kHeaders = sizeof(fuse_in_header) + sizeof(fuse_write_in);
constexpr std::size_t kReceived = kHeaders + kMaxIo;
constexpr std::size_t kOffset = kPage - kHeaders;

thread_local Buffer *t_memory;

}  // namespace

int Receivers::start(fuse_session *session, OnEnd on_end, void *arg) {
    session_ = session;
    on_end_ = on_end;
    arg_ = arg;
    // The signal only makes read() return. Other threads never get it.
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR2, &action, nullptr);
    // Who waits waits for its I/O too, never in a read.
    const int fd = fuse_session_fd(session);
    if (::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK) != 0) {
        return errno;
    }
    calm_ = std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, kCalmAtMost);
    const std::lock_guard lock(mutex_);
    for (int i = 0; i < calm_ + kSpare; ++i) {
        if (const int rc = add_thread_locked(); rc != 0) {
            return rc;
        }
    }
    const int rc = thread_start("trakd-lookout", run_lookout, this, nullptr);
    looking_ = rc == 0;
    return rc;
}

// The thread reads at once; when that is one too many it parks. Those that come because others sleep
// leave their I/O to the platform's thread.
int Receivers::add_thread_locked() {
    if (stopping_) {
        return ECANCELED;
    }
    const unsigned depth = static_cast<int>(threads_.size()) < calm_ + kSpare ? kDepth : 0;
    threads_.push_back({this, {}, Buffer::get(kPage + kMaxIo), depth, nullptr, true, 0});
    Thread &thread = threads_.back();
    int rc = thread.memory ? 0 : ENOMEM;
    if (rc == 0) {
        reading_.fetch_add(1);
        rc = thread_start("trakd-io", run_receiver, &thread, nullptr);
        if (rc != 0) {
            reading_.fetch_sub(1);
        }
    }
    if (rc != 0) {
        threads_.pop_back();
    }
    return rc;
}

// Without memory or threads the others have to do.
void Receivers::one_more_reads() {
    const std::lock_guard lock(mutex_);
    if (idle_ > let_in_) {
        ++let_in_;
        reading_.fetch_add(1);
        parked_.notify_one();
    } else {
        (void)add_thread_locked();
    }
}

void *Receivers::run_receiver(void *thread) {
    pthread_setname_np(pthread_self(), "trakd-io");
    Thread *self = static_cast<Thread *>(thread);
    self->owner->receive_all(self);
    return nullptr;
}

void *Receivers::run_lookout(void *self) {
    pthread_setname_np(pthread_self(), "trakd-lookout");
    static_cast<Receivers *>(self)->look_out();
    return nullptr;
}

void Receivers::receive_all(Thread *self) {
    {
        const std::lock_guard lock(mutex_);
        self->id = pthread_self();
    }
    t_memory = &self->memory;
    {
        user::OwnIo io(self->depth);
        self->io = &io;
        while (may_read(self) && receive(self)) {
        }
    }
    t_memory = nullptr;
    const std::lock_guard lock(mutex_);
    threads_.remove_if([self](const Thread &thread) { return &thread == self; });
    gone_.notify_all();
}

// True once this thread shall read. It counts as reading when it asks, and where the answer is no it
// does not any more.
bool Receivers::may_read(Thread *self) {
    if (!stopping_ && (reading_.load() <= calm_ || alert_.load(std::memory_order_relaxed))) {
        return true;
    }
    if (!must_not_read()) {
        return true;
    }
    // Others read from here on, which what is under way here may depend on.
    self->io->drain();
    std::unique_lock lock(mutex_);
    if (stopping_ || idle_ >= kSpare) {
        return false;
    }
    ++idle_;
    parked_.wait(lock, [this] { return let_in_ > 0 || stopping_; });
    --idle_;
    if (stopping_) {
        return false;
    }
    --let_in_;
    return true;
}

// Of too many that find one another reading some don't any more.
bool Receivers::must_not_read() {
    const std::lock_guard lock(mutex_);
    if (!stopping_ && reading_.load() <= calm_) {
        return false;
    }
    reading_.fetch_sub(1);
    return true;
}

// Serves the thread's I/O when it is time; false when there is no request to be read yet.
bool Receivers::await_request(Thread *self) {
    if (self->none_left) {
        self->none_left = !self->io->serve(fuse_session_fd(session_), true);
        self->taken = 0;
        return !self->none_left;
    }
    if (self->taken >= kTogether) {
        self->io->serve(-1, false);
        self->taken = 0;
    }
    return true;
}

// One request; false when there will be no more.
bool Receivers::receive(Thread *self) {
    if (!await_request(self)) {
        return true;
    }
    std::uint8_t *request = self->memory.data() + kOffset;
    const ssize_t size = ::read(fuse_session_fd(session_), request, kReceived);
    if (size < 0) {
        self->none_left = errno == EAGAIN;
        // The request was taken back before it was read, or a signal came.
        if (errno == ENOENT || errno == EINTR || errno == EAGAIN) {
            return true;
        }
        ended();
        reading_.fetch_sub(1);
        return false;
    }
    ++self->taken;
    taken_.fetch_add(1);
    if (reading_.fetch_sub(1) == 1 && alert_.load(std::memory_order_relaxed)) {
        one_more_reads();
    }
    if (lookout_sleeps_.load()) {
        const std::lock_guard lock(mutex_);
        lookout_.notify_all();
    }
    fuse_buf buf = {};
    buf.size = static_cast<std::size_t>(size);
    buf.mem = request;
    fuse_session_process_buf(session_, &buf);
    reading_.fetch_add(1);
    return true;
}

// The lookout. It sleeps while nothing is taken and somebody reads.
void Receivers::look_out() {
    std::unique_lock lock(mutex_);
    std::uint64_t seen = 0;
    int quiet = 0;
    int calm = 0;
    while (!stopping_) {
        if (quiet > kQuietLooks && !alert_) {
            lookout_sleeps_ = true;
            lookout_.wait(lock, [this, seen] { return taken_.load() != seen || stopping_; });
            lookout_sleeps_ = false;
        }
        lookout_.wait_for(lock, kLook, [this] { return stopping_.load(); });
        const std::uint64_t taken = taken_.load();
        const bool nobody_reads = reading_.load() == 0;
        quiet = taken == seen && !nobody_reads ? quiet + 1 : 0;
        if (taken == seen && nobody_reads) {
            alert_ = true;
            calm = 0;
            lock.unlock();
            one_more_reads();
            lock.lock();
        } else if (alert_) {
            const auto in_hand = static_cast<int>(threads_.size()) - idle_ - reading_.load();
            calm = in_hand <= calm_ ? calm + 1 : 0;
            alert_ = calm <= kCalmLooks;
        }
        seen = taken;
    }
    looking_ = false;
    gone_.notify_all();
}

void Receivers::ended() {
    if (!stopping_ && !told_.exchange(true)) {
        on_end_(arg_);
    }
}

void Receivers::stop() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    parked_.notify_all();
    lookout_.notify_all();
    while (!threads_.empty() || looking_) {
        for (const Thread &thread : threads_) {
            if (thread.id != pthread_t{}) {
                pthread_kill(thread.id, SIGUSR2);
            }
        }
        // A thread that looked at stopping_ just before it was set misses the signal: it gets
        // another.
        gone_.wait_for(lock, milliseconds(20));
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
