// agent/process.cpp: tools that end when the agent does
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/process.h"

#include "agent/events.h"
#include "agent/failure.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace agent {
namespace {

struct Plan {
    std::vector<char *> words, environment;
    int listener, said, nothing;
    pid_t parent;
    char *listen_pid;
};

// Between fork and exec: only calls that are allowed there.
[[noreturn]] void become(Plan &plan) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != plan.parent)
        _exit(127);
    // Signals of the terminal are for the agent, which ends its tools itself.
    setsid();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    dup2(plan.nothing, 0);
    dup2(plan.said, 1);
    dup2(plan.said, 2);
    if (plan.listener >= 0) {
        if (plan.listener == 3)
            fcntl(3, F_SETFD, 0);
        else
            dup2(plan.listener, 3);
        // The number, written by hand: nothing here may allocate.
        char digits[16];
        int n = 0;
        for (pid_t pid = getpid(); pid > 0; pid /= 10)
            digits[n++] = static_cast<char>('0' + pid % 10);
        char *to = plan.listen_pid;
        while (n > 0)
            *to++ = digits[--n];
        *to = '\0';
    }
    execvpe(plan.words[0], plan.words.data(), plan.environment.data());
    const char text[] = "can't be started";
    (void)!write(2, text, sizeof(text) - 1);
    _exit(127);
}

}  // namespace

Process::Process(const std::vector<std::string> &words, int listener) : name_(words[0]) {
    said_ = memfd_create("said", MFD_CLOEXEC);
    int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (said_ < 0 || nothing < 0) {
        int error = errno;
        if (said_ >= 0)
            close(said_);
        throw Failure(fmt::format("can't start {}: {}", name_, strerror(error)), error);
    }
    Plan plan = {};
    plan.listener = listener;
    plan.said = said_;
    plan.nothing = nothing;
    plan.parent = getpid();
    for (const std::string &word : words)
        plan.words.push_back(const_cast<char *>(word.c_str()));
    plan.words.push_back(nullptr);
    std::string listen_pid = "LISTEN_PID=0000000000000000", listen_fds = "LISTEN_FDS=1";
    for (char **variable = environ; *variable != nullptr; variable++)
        if (strncmp(*variable, "LISTEN_", 7) != 0 && strncmp(*variable, "LC_ALL=", 7) != 0)
            plan.environment.push_back(*variable);
    std::string locale = "LC_ALL=C";
    plan.environment.push_back(locale.data());
    if (listener >= 0) {
        plan.environment.push_back(listen_pid.data());
        plan.environment.push_back(listen_fds.data());
        plan.listen_pid = listen_pid.data() + strlen("LISTEN_PID=");
    }
    plan.environment.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0)
        become(plan);
    int error = errno;
    close(nothing);
    if (pid_ < 0) {
        close(said_);
        throw Failure(fmt::format("can't start {}: {}", name_, strerror(error)), error);
    }
}

Process::~Process() {
    kill_now();
    close(said_);
}

void Process::kill_now() {
    if (status_ != -2)
        return;
    kill(pid_, SIGKILL);
    wait(30);
}

int Process::wait(double seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (int pause_us = 500; status_ == -2; pause_us = std::min(pause_us * 2, 20000)) {
        int raw = 0;
        pid_t done = waitpid(pid_, &raw, WNOHANG);
        if (done == pid_)
            status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        else if (done < 0 && errno != EINTR)
            status_ = -1;
        else if (std::chrono::steady_clock::now() >= end)
            break;
        else
            usleep(static_cast<useconds_t>(pause_us));
    }
    return status_;
}

std::string Process::said() {
    std::string text(65536, '\0');
    ssize_t n = pread(said_, text.data(), text.size(), 0);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

int run_tool_status(const std::vector<std::string> &words, std::string *said) {
    Process process(words, -1);
    int status;
    while ((status = process.wait(0.5)) == -2)
        check_interrupt();
    *said = process.said();
    return status;
}

std::string run_tool(const std::vector<std::string> &words) {
    std::string said;
    int status = run_tool_status(words, &said);
    if (status != 0)
        throw Failure(fmt::format("{} failed: {}", words[0],
                                  said.empty() ? fmt::format("exit status {}", status) : said));
    return said;
}

}  // namespace agent
