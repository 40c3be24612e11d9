// agent/events.h: what a run tells: one JSON object a line, or sentences and a progress bar
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/failure.h"

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>

#include <nlohmann/json.hpp>

namespace agent {

class Events {
  public:
    std::ostream *out, *err;
    bool json = false;
    bool terminal = false;  // err is one: draw the bar
    unsigned columns = 80;

    // {"event": name, "time": ..., fields...}; where text is asked for and there is some, the text.
    void say(const char *name, nlohmann::json fields, const std::string &text);
    // A sentence that the user should know; on standard error in text mode.
    void notice(const std::string &text);
    void error(const std::string &text);
    // At most twice a second, and at the end.
    void progress(const char *phase, uint64_t done, uint64_t total, bool last);

  private:
    void clear_bar();
    using Clock = std::chrono::steady_clock;
    Clock::time_point begun_, shown_;
    std::string phase_;
    bool bar_ = false;
};

std::string size_text(uint64_t bytes);
// One line of the progress bar; `left`: seconds, `rate`: bytes a second.
std::string bar_text(const char *phase, double share, unsigned columns, uint64_t done,
                     uint64_t total, double rate, double left);
std::string duration_text(double seconds);

// Set by SIGINT and SIGTERM. check_interrupt() throws Interrupted once it is.
extern volatile int interrupted;
void check_interrupt();

}  // namespace agent
