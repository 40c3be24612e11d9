// agent/main.cpp: trak-backup
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/app.h"
#include "agent/events.h"

#include <algorithm>
#include <csignal>
#include <iostream>

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void on_interrupt(int) {
    agent::interrupted = 1;
}

}  // namespace

int main(int argc, char **argv) {
    // A reader of the events that went away must not end a backup half-way.
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction action = {};
    action.sa_handler = on_interrupt;
    for (int number : {SIGINT, SIGTERM, SIGHUP})
        sigaction(number, &action, nullptr);
    // Backups hold what the disk holds: for their owner alone, what qemu's tools make included.
    umask(077);
    agent::World world;
    world.out = &std::cout;
    world.err = &std::cerr;
    world.open = trak_open;
    world.err_is_terminal = isatty(STDERR_FILENO) != 0;
    winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        world.columns = std::clamp<unsigned>(size.ws_col, 40, 400);
    return agent::run(argc, argv, world);
}
