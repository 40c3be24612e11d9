// daemon/options.h: the command line of trakd
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAKD_OPTIONS_H
#define TRAKD_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace trakd {

struct Image {
    std::string name;  // known to the driver as /dev/image/NAME
    std::string file;  // absolute once options_check() passed
};

struct Options {
    std::vector<Image> images;
    std::vector<std::string> params;  // NAME=VALUE
    bool foreground = false;
    std::string log_file;     // empty: none
    std::string mount_point;  // absolute once options_check() passed
};

// Exit statuses of the program.
enum Exit { kExitOk = 0, kExitFailed = 1, kExitUsage = 2 };

// Reads the command line. True: go on with *options. False: *status is the exit status, and help,
// version or one line about what is wrong has been printed.
[[nodiscard]] bool options_parse(int argc, char **argv, Options *options, int *status);

// Makes paths absolute, sets the module's parameters and looks at what can be looked at before
// anything is started: 0, or -1 with one line in *why.
[[nodiscard]] int options_check(Options *options, std::string *why);

}  // namespace trakd

#endif
