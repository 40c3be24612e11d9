// daemon/workers.cpp: threads for what may wait
// SPDX-License-Identifier: GPL-2.0-only
//
// Invariant  idle threads >= queued tasks, unless the machine refuses another thread; then tasks
//            wait for the threads that there are, and reads and writes go on regardless.
#include "daemon/workers.h"

#include <chrono>
#include <utility>

#include "daemon/thread.h"

namespace trakd {

namespace {
constexpr std::chrono::seconds kIdleBeforeEnd{10};
}

int Workers::start() {
    const std::lock_guard lock(mutex_);
    return add_thread_locked() ? 0 : EAGAIN;
}

void Workers::post(Task task) {
    const std::lock_guard lock(mutex_);
    queue_.push_back(std::move(task));
    if (idle_ < queue_.size()) {
        add_thread_locked();
    }
    work_.notify_one();
}

bool Workers::add_thread_locked() {
    if (thread_start("trakd-command", run, this, nullptr) != 0) {
        return false;
    }
    ++threads_;
    ++idle_;
    return true;
}

void *Workers::run(void *self) {
    pthread_setname_np(pthread_self(), "trakd-command");
    static_cast<Workers *>(self)->loop();
    return nullptr;
}

void Workers::loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        const bool woken =
            work_.wait_for(lock, kIdleBeforeEnd, [this] { return !queue_.empty() || stopping_; });
        if (!queue_.empty()) {
            Task task = std::move(queue_.front());
            queue_.pop_front();
            --idle_;
            lock.unlock();
            task();
            task = nullptr;
            lock.lock();
            ++idle_;
            if (idle_ == threads_ && queue_.empty()) {
                quiet_.notify_all();
            }
        } else if (stopping_ || (!woken && threads_ > 1)) {
            break;
        }
    }
    --threads_;
    --idle_;
    quiet_.notify_all();
}

void Workers::drain() {
    std::unique_lock lock(mutex_);
    quiet_.wait(lock, [this] { return queue_.empty() && idle_ == threads_; });
}

void Workers::stop() {
    std::unique_lock lock(mutex_);
    quiet_.wait(lock, [this] { return queue_.empty() && idle_ == threads_; });
    stopping_ = true;
    work_.notify_all();
    quiet_.wait(lock, [this] { return threads_ == 0; });
}

}  // namespace trakd
