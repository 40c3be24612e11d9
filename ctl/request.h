// ctl/request.h: what the command line asked for
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "abi/trak_ioctl.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace ctl {

enum class Verb {
    add_filter,
    add_snap,
    start,
    stop,
    del,
    resume,
    list,
    info,
    status,
    bitmap,
    datablock,
    test_datablock,
    map,
    debug,
    attach_all,
    stop_all,
    check_config,
};

struct Request {
    Verb verb = Verb::list;
    std::string root = "/";
    bool json = false;

    uint32_t minor = 0;         // the node that the command is about (add-snap: the filter)
    int32_t wanted_minor = -1;  // add-*: negative lets the driver choose
    std::string name, uuid;
    std::string disk, bmp_dir;      // add-filter; disk: test-datablock too
    std::string cow_bmp, cow_data;  // add-snap
    uint32_t unit_size = 0;         // extent or chunk size in bytes; 0: not given
    std::string action;             // bitmap: get, get-clear, clear, set, merge, save, load
    std::string kind;               // incr, diff, datablock; list: filter, snap or empty
    std::string file, svg;          // empty: not given; file "-": standard input or output
    bool watch = false;
    double interval_seconds = 1;
    std::optional<int> level;
    std::string config;       // attach-all, stop-all, check-config: a folder or a file
    double wait_seconds = 0;  // stop-all: for nodes that are in use
    trak_resume_arg resume = {0, 1, 0, 0};
};

// The command line ends the program by itself: help, or wrong usage.
struct Early {
    int status;        // 0 or 2
    std::string text;  // for standard output (0) or standard error (2)
};

// Sizes: decimal digits and at most one suffix K, M, G, T (powers of 1024; "KiB", "k" and so on
// mean the same). Nothing else, no sign, no overflow.
std::optional<uint64_t> parse_size(const std::string &text);

// root: what --root is where it is not given. program_version for --version.
std::variant<Request, Early> parse_command_line(int argc, const char *const *argv);

}  // namespace ctl
