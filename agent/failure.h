// agent/failure.h: how a step of trak-backup fails
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <string>
#include <utility>

namespace agent {

// What ends a command: one sentence for people, without the program's name and without a newline.
struct Failure {
    std::string text;
    int error = 0;  // errno where one is known
    explicit Failure(std::string why, int number = 0) : text(std::move(why)), error(number) {}
};

// SIGINT or SIGTERM was seen; everything is taken back as after a failure.
struct Interrupted {
    std::string left;  // what could not be taken back, as a sentence; empty: nothing
};

// Exit statuses of the program.
enum Status { status_ok = 0, status_failed = 1, status_usage = 2, status_interrupted = 130 };

}  // namespace agent
