// agent/request.h: a command line of trak-backup, understood
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace agent {

enum class Verb { full, incr, diff, list, restore, verify, audit, prune, report, steps };

struct Request {
    Verb verb = Verb::list;
    std::string root;  // of the driver's tree
    bool json = false;
    std::string store, disk, cow_dir, point = "latest", to;
    uint32_t chunk_size = 65536;
    uint64_t cow_reserve = 0;
    int64_t audit_sample = -1;
    bool no_full = false, force = false, keep_going = false, all = false, quick = false;
    bool dry_run = false;
    uint64_t last = 60;                      // report
    uint64_t keep_count = 0, keep_days = 0;  // prune; 0: not given
    std::string stop_at, kill_at;
};

// --help, --version and wrong usage end before a command runs.
struct Early {
    int status;
    std::string text;
};

std::variant<Request, Early> parse_command_line(int argc, const char *const *argv);

}  // namespace agent
