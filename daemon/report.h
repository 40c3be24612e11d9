// daemon/report.h: what trakd says, and where the driver's log goes
// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel log of os/user holds the driver's messages and trakd's own, which begin with "trakd:
// ". It is the file `log` of the tree; a thread copies each line to standard error (in the
// foreground), to the log file and, where trakd is a daemon, to syslog (its own lines and errors).
#ifndef TRAKD_REPORT_H
#define TRAKD_REPORT_H

#include <fmt/format.h>

#include <string>

namespace trakd {

// Adds "trakd: <text>" to the log. May be called from any thread, signal handlers excepted.
void report_line(const std::string &text);

template <typename... Args> void report(fmt::format_string<Args...> format, Args &&...args) {
    report_line(fmt::format(format, std::forward<Args>(args)...));
}

struct LogTargets {
    bool standard_error = false;
    bool syslog = false;
    std::string file;  // empty: none
};
// Starts copying. 0, or -1 with one line in *why. After user::start().
[[nodiscard]] int log_start(const LogTargets &targets, std::string *why);
// Ends copying, with all that was logged before written out (given up after some seconds where a
// target does not take it).
void log_stop();

}  // namespace trakd

#endif
