// agent/process.h: tools that end when the agent does
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace agent {

// A tool under way. It gets SIGKILL when this process dies, and when the object goes first.
class Process {
  public:
    // `listener` (-1: none) becomes descriptor 3, as systemd hands a socket over.
    Process(const std::vector<std::string> &words, int listener);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    // Waits for its end, at most so long: the exit status, -1 where a signal ended it, -2: runs on.
    int wait(double seconds);
    void kill_now();
    // What it said on standard output and error, at most 64 KiB.
    std::string said();
    const std::string &name() const { return name_; }

  private:
    std::string name_;
    pid_t pid_ = -1;
    int said_ = -1;  // a file in memory
    int status_ = -2;
};

// Runs a tool to its end; throws Failure with what it said unless it exits with 0. An interrupt of
// the agent ends it.
std::string run_tool(const std::vector<std::string> &words);
// The same, but the exit status is the result.
int run_tool_status(const std::vector<std::string> &words, std::string *said);

}  // namespace agent
