// ctl/main.cpp: trakctl
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/app.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iostream>

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t interrupted;

void on_interrupt(int) {
    interrupted = 1;
}

// Interruptible sleep: false after SIGINT or SIGTERM, which are caught only while it is used.
bool pause_for(double seconds) {
    struct sigaction action = {};
    action.sa_handler = on_interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    timespec left = {};
    left.tv_sec = static_cast<time_t>(seconds);
    left.tv_nsec = static_cast<long>((seconds - static_cast<double>(left.tv_sec)) * 1e9);
    while (!interrupted && nanosleep(&left, &left) < 0 && errno == EINTR) {
    }
    return !interrupted;
}

unsigned terminal_columns() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return std::clamp<unsigned>(size.ws_col, 20, 400);
    return 80;
}

}  // namespace

int main(int argc, char **argv) {
    // Only the character set: numbers stay as scripts expect them.
    setlocale(LC_CTYPE, "");
    // A reader that went away is a failed write, which bitmap get-clear must see.
    std::signal(SIGPIPE, SIG_IGN);
    ctl::World world;
    world.out = &std::cout;
    world.err = &std::cerr;
    world.open = trak_open;
    world.out_is_terminal = isatty(STDOUT_FILENO) != 0;
    world.utf8 = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    world.columns = terminal_columns();
    world.pause = pause_for;
    return ctl::run(argc, argv, world);
}
