// daemon/report.cpp: what trakd says, and where the driver's log goes
// SPDX-License-Identifier: GPL-2.0-only
//
// A line is logged in any context, also by the completion of a request: the sink only appends it
// to a bounded queue. Where a target does not take lines as fast as they come, the queue loses
// lines and says how many.
#include "daemon/report.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>

#include "daemon/thread.h"
#include "os/log.h"
#include "os/user/user.h"

namespace trakd {

namespace {

constexpr std::size_t kQueueBytes = std::size_t{4} << 20;
constexpr std::chrono::seconds kLastLines{5};

class Copier {
  public:
    int start(const LogTargets &targets, std::string *why);
    void stop();

  private:
    static void sink(void *self, const char *text, std::size_t size);
    static void *run(void *self);
    void append(const char *text, std::size_t size);
    void loop();
    void put(const std::string &line) const;
    void put_to(int fd, const std::string &line) const;

    std::mutex mutex_;
    std::condition_variable more_;
    std::condition_variable ended_;
    std::deque<std::string> queue_;
    std::size_t queued_bytes_ = 0;
    std::size_t lost_ = 0;
    bool stopping_ = false;
    bool running_ = false;
    LogTargets targets_;
    int file_ = -1;
};

Copier &copier() {
    static Copier *one = new Copier;  // lives as long as the process: its thread may outlive main()
    return *one;
}

int Copier::start(const LogTargets &targets, std::string *why) {
    targets_ = targets;
    if (!targets.file.empty()) {
        file_ = ::open(targets.file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
        if (file_ < 0) {
            *why = fmt::format("--log-file {}: {}", targets.file, std::strerror(errno));
            return -1;
        }
    }
    if (targets.syslog) {
        ::openlog("trakd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    }
    if (thread_start("trakd-log", run, this, nullptr) != 0) {
        *why = "no thread for the log";
        return -1;
    }
    running_ = true;
    user::set_log_sink(sink, this);
    return 0;
}

void Copier::stop() {
    if (!running_) {
        return;
    }
    user::set_log_sink(nullptr, nullptr);
    std::unique_lock lock(mutex_);
    stopping_ = true;
    more_.notify_all();
    ended_.wait_for(lock, kLastLines, [this] { return !running_; });
}

void Copier::sink(void *self, const char *text, std::size_t size) {
    static_cast<Copier *>(self)->append(text, size);
}

void Copier::append(const char *text, std::size_t size) {
    const std::lock_guard lock(mutex_);
    if (queued_bytes_ + size > kQueueBytes) {
        ++lost_;
        return;
    }
    if (lost_ != 0) {
        queue_.push_back(
            fmt::format("<4>trakd: {} lines were logged too fast to be copied\n", lost_));
        queued_bytes_ += queue_.back().size();
        lost_ = 0;
    }
    queue_.emplace_back(text, size);
    queued_bytes_ += size;
    more_.notify_one();
}

void *Copier::run(void *self) {
    static_cast<Copier *>(self)->loop();
    return nullptr;
}

void Copier::loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        more_.wait(lock, [this] { return !queue_.empty() || stopping_; });
        if (queue_.empty()) {
            break;
        }
        const std::string line = std::move(queue_.front());
        queue_.pop_front();
        queued_bytes_ -= line.size();
        lock.unlock();
        put(line);
        lock.lock();
    }
    running_ = false;
    ended_.notify_all();
}

void Copier::put(const std::string &line) const {
    if (targets_.standard_error) {
        put_to(STDERR_FILENO, line);
    }
    if (file_ >= 0) {
        put_to(file_, line);
    }
    if (targets_.syslog && line.size() > 3) {
        const bool error = line.starts_with("<3>");
        if (error || line.find("trakd: ") == 3) {
            ::syslog(error ? LOG_ERR : LOG_NOTICE, "%s", line.c_str() + 3);
        }
    }
}

// A target that fails loses the line: there is nowhere to say so.
void Copier::put_to(int fd, const std::string &line) const {
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
        if (n <= 0 && errno != EINTR) {
            return;
        }
        done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
}

}  // namespace

void report_line(const std::string &text) {
    os_printk("<5>trakd: %s\n", text.c_str());
}

int log_start(const LogTargets &targets, std::string *why) {
    return copier().start(targets, why);
}

void log_stop() {
    copier().stop();
}

}  // namespace trakd
