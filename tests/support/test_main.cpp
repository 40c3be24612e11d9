// tests/support/test_main.cpp: main() of every GoogleTest program: hangs explain themselves
// SPDX-License-Identifier: GPL-2.0-only
//
// Two things are added to what GoogleTest does:
// - A test that hangs ends by itself. TRAK_TEST_WATCH seconds after the start (0 or unset: never)
//   SIGALRM arrives; the handler asks every thread for its stack by a signal, prints each, and
//   ends the process with status 124. It uses no lock and no heap of ours, so it works in a
//   deadlocked program. A thread that doesn't answer within a second is named and passed over.
// - A test that can't run here says GTEST_SKIP() << reason. With CI=true in the environment that is
//   a failure, so that nothing is left out there in silence.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

std::atomic<int> stacks_printed{0};

void print(const char *text) {
    // Nothing can be done about a failed write of a diagnosis.
    if (write(STDERR_FILENO, text, strlen(text)) < 0)
        return;
}

void print_own_stack(int) {
    char line[96];
    snprintf(line, sizeof line, "--- thread %ld\n", static_cast<long>(syscall(SYS_gettid)));
    print(line);
    void *frames[48];
    backtrace_symbols_fd(frames, backtrace(frames, 48), STDERR_FILENO);
    stacks_printed.fetch_add(1);
}

void wait_for_stacks(int count) {
    const timespec tick = {0, 1000000};
    for (int i = 0; i < 1000 && stacks_printed.load() < count; i++)
        nanosleep(&tick, nullptr);
}

void time_is_up(int) {
    print("\n*** this test has not ended in its time: the stacks of its threads follow\n");
    DIR *tasks = opendir("/proc/self/task");
    int asked = 0;
    while (dirent *entry = tasks ? readdir(tasks) : nullptr) {
        const long tid = atol(entry->d_name);
        if (tid <= 0)
            continue;
        if (tid == syscall(SYS_gettid))
            print_own_stack(0);
        else if (syscall(SYS_tgkill, getpid(), tid, SIGUSR2) != 0)
            continue;
        wait_for_stacks(++asked);
    }
    print("*** end of stacks\n");
    _exit(124);
}

void watch_over_hangs() {
    const char *seconds = getenv("TRAK_TEST_WATCH");
    if (!seconds || atoi(seconds) <= 0)
        return;
    void *frames[2];
    backtrace(frames, 2);  // the first call loads a library; not in the handler
    struct sigaction action = {};
    action.sa_handler = print_own_stack;
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR2, &action, nullptr);
    action.sa_handler = time_is_up;
    sigaction(SIGALRM, &action, nullptr);
    alarm(static_cast<unsigned>(atoi(seconds)));
}

class SkipsFail : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo &info) override {
        if (info.result()->Skipped())
            ADD_FAILURE() << "skipped, and with CI=true a test that can't run is a failure";
    }
};

}  // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    const char *ci = getenv("CI");
    if (ci && strcmp(ci, "true") == 0)
        testing::UnitTest::GetInstance()->listeners().Append(new SkipsFail);
    watch_over_hangs();
    return RUN_ALL_TESTS();
}
