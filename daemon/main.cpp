// daemon/main.cpp: trakd: start, signals, end
// SPDX-License-Identifier: GPL-2.0-only
//
//   start    command line, mount point, platform, disks, driver, mount, receivers; then the starter
//            is told
//   serving  the main thread waits for signals, for closes of nodes and for the session's end
//   end      asked for by SIGTERM or SIGINT: once no node is in use, or, asked twice, at once; or
//            the mount was taken away from outside, which closes what was open
//
// The unload runs in a thread of its own: the main thread hears a second signal at any time.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <string>

#include "daemon/buffers.h"
#include "daemon/mounts.h"
#include "daemon/options.h"
#include "daemon/pressure.h"
#include "daemon/report.h"
#include "daemon/server.h"
#include "daemon/starter.h"
#include "daemon/thread.h"
#include "daemon/unload.h"
#include "driver/module/module.h"

namespace trakd {

namespace {

class Daemon {
  public:
    int run(const Options &options, Starter *starter);

  private:
    int load(const Options &options, std::string *why);
    int show(const Options &options, std::string *why);
    int wait_for_end();
    void on_signal();
    void try_unload();
    void unload_now();
    void take_result();
    [[noreturn]] void end_at_once();
    void wake() const;

    int signals_ = -1;
    int wake_ = -1;
    Server *server_ = nullptr;  // never freed: threads may look at it until the process ends

    int asked_ = 0;                           // signals that asked for the end
    std::atomic<bool> session_ended_{false};  // the mount was taken away
    std::atomic<bool> may_succeed_{false};    // what held the last try of an unload up may be gone
    bool unloading_ = false;
    bool unloaded_ = false;
    std::string blocked_by_;  // as it was last told

    std::mutex mutex_;  // of what the unloading thread leaves
    bool has_result_ = false;
    int result_ = 0;
    std::string why_;
};

// The line of the log that says what went wrong last.
std::string last_error() {
    const std::string log = user::log_text();
    const std::size_t at = log.rfind("<3>");
    if (at == std::string::npos) {
        return "the log is empty";
    }
    return log.substr(at + 3, log.find('\n', at) - at - 3);
}

void on_crash(int signal) {
    user::thaw_all();
    ::raise(signal);  // the default action: the handler was for one time
}

void handle_crashes() {
    struct sigaction action = {};
    action.sa_handler = on_crash;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) {
        ::sigaction(signal, &action, nullptr);
    }
}

// Signals that end trakd are read from a descriptor; no thread is interrupted by them.
int open_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

int Daemon::load(const Options &options, std::string *why) {
    pressure_prepare();
    buffers_warm_up();
    if (const int rc = user::start(user::Options{}, why); rc != 0) {
        return -1;
    }
    const LogTargets targets{options.foreground, !options.foreground, options.log_file};
    if (log_start(targets, why) != 0) {
        return -1;
    }
    for (const Image &image : options.images) {
        std::string reason;
        if (const int rc = user::add_image(image.name, image.file, nullptr, &reason); rc != 0) {
            *why = reason.empty() ? fmt::format("disk {}: {}", image.name, std::strerror(-rc))
                                  : reason;
            return -1;
        }
    }
    return 0;
}

int Daemon::show(const Options &options, std::string *why) {
    const auto session_ended = [](void *arg) {
        auto *self = static_cast<Daemon *>(arg);
        self->session_ended_ = true;
        self->may_succeed_ = true;
        self->wake();
    };
    server_ = new Server(options.mount_point, session_ended, this);
    server_->on_release = [this] {
        may_succeed_ = true;
        wake();
    };
    user::set_listener(&server_->tree());
    if (const int rc = trak_init(); rc != 0) {
        *why = fmt::format("the driver does not load ({}): {}", std::strerror(-rc), last_error());
        return -1;
    }
    if (server_->mount(why) != 0 || server_->serve(why) != 0) {
        return -1;
    }
    if (const int rc = user::set_tree(options.mount_point); rc != 0) {
        *why = fmt::format("{} is not in the mount table: {}", options.mount_point,
                           std::strerror(-rc));
        return -1;
    }
    struct stat st;
    if (::stat(options.mount_point.c_str(), &st) != 0) {
        *why = fmt::format("{} does not answer: {}", options.mount_point, std::strerror(errno));
        return -1;
    }
    return 0;
}

int Daemon::run(const Options &options, Starter *starter) {
    std::string why;
    signals_ = open_signals();
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signals_ < 0 || wake_ < 0) {
        starter->fail(fmt::format("no descriptors: {}", std::strerror(errno)));
        return kExitFailed;
    }
    handle_crashes();
    if (load(options, &why) != 0 || show(options, &why) != 0) {
        if (server_ != nullptr) {
            server_->unmount();
        }
        log_stop();
        starter->fail(why);
        ::_exit(kExitFailed);
    }
    pressure_report();
    report("serving at {}", options.mount_point);
    starter->ready();
    return wait_for_end();
}

// While it can't end it tries again when a node was closed, and once a second, for what nobody tells of.
int Daemon::wait_for_end() {
    while (!unloaded_) {
        pollfd fds[] = {{signals_, POLLIN, 0}, {wake_, POLLIN, 0}};
        const bool ending = asked_ != 0 || session_ended_;
        const int ready = ::poll(fds, 2, ending ? 1000 : -1);
        if (ready < 0 && errno != EINTR) {
            end_at_once();
        }
        if (ready == 0) {
            may_succeed_ = true;
        }
        eventfd_t count;
        (void)::eventfd_read(wake_, &count);
        signalfd_siginfo info;
        while (::read(signals_, &info, sizeof(info)) == sizeof(info)) {
            if (info.ssi_signo != SIGHUP) {
                on_signal();
            }
        }
        take_result();
        if (!unloaded_ && (asked_ != 0 || session_ended_) && !unloading_ &&
            may_succeed_.exchange(false)) {
            try_unload();
        }
    }
    report("ended in order");
    server_->unmount();
    server_->stop();
    server_->close_all();
    user::set_listener(nullptr);
    log_stop();
    user::stop();
    return kExitOk;
}

void Daemon::on_signal() {
    if (++asked_ > 1) {
        end_at_once();
    }
    may_succeed_ = true;
    report("told to end");
}

void Daemon::try_unload() {
    unloading_ = true;
    const auto body = [](void *arg) -> void * {
        static_cast<Daemon *>(arg)->unload_now();
        return nullptr;
    };
    if (thread_start("trakd-unload", body, this, nullptr) != 0) {
        unloading_ = false;
    }
}

// In a thread of its own.
void Daemon::unload_now() {
    int rc = 0;
    std::string why;
    if (session_ended_) {
        server_->stop();
        server_->close_all();
    } else if (std::string busy = nodes_in_use(); !busy.empty()) {
        rc = -EBUSY;
        why = std::move(busy);
    }
    if (rc == 0) {
        rc = unload(server_, &why);
    }
    const std::lock_guard lock(mutex_);
    has_result_ = true;
    result_ = rc;
    why_ = why;
    wake();
}

void Daemon::take_result() {
    const std::lock_guard lock(mutex_);
    if (!has_result_) {
        return;
    }
    has_result_ = false;
    unloading_ = false;
    unloaded_ = result_ == 0;
    if (!unloaded_ && why_ != blocked_by_) {
        blocked_by_ = why_;
        if (result_ == -EBUSY) {
            report("in use: {}; serving on until it is free, or told to end once more", why_);
        } else {
            report("can't end in order: {}", why_);
        }
    }
}

// Bitmap files stay as they are: those that were written to since the last save are marked dirty,
// and count as everything changed the next time.
void Daemon::end_at_once() {
    user::thaw_all();
    report("told to end twice: ending at once{}{}; bitmap files stay dirty where their nodes were "
           "written to, and count as everything changed",
           blocked_by_.empty() ? "" : " with nodes in use: ", blocked_by_);
    server_->unmount();
    log_stop();
    ::_exit(kExitFailed);
}

void Daemon::wake() const {
    (void)::eventfd_write(wake_, 1);
}

int start(int argc, char **argv) {
    Options options;
    int status = kExitOk;
    if (!options_parse(argc, argv, &options, &status)) {
        return status;
    }
    std::string why;
    if (options_check(&options, &why) != 0 || mount_point_take(&options.mount_point, &why) != 0) {
        fmt::print(stderr, "trakd: {}\n", why);
        return kExitFailed;
    }
    Starter starter;
    if (!options.foreground && !starter.fork(&status)) {
        return status;
    }
    static Daemon daemon;
    return daemon.run(options, &starter);
}

}  // namespace

}  // namespace trakd

int main(int argc, char **argv) {
    const int status = trakd::start(argc, argv);
    std::fflush(stdout);
    // Threads that wait in the kernel may be left: nothing of theirs is taken down under them.
    ::_exit(status);
}
