// agent/steps.h: the named steps of a backup, at which tests stop or kill it
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace agent {

struct StepName {
    const char *name, *meaning;
    bool full, incr, diff;  // kinds of backup that come by
};

// In the order in which a backup comes by them.
const std::vector<StepName> &step_names();
bool is_step(const std::string &name);

// What happens at a step, from the hidden options --stop-at and --kill-at (or TRAK_BACKUP_STOP_AT
// and TRAK_BACKUP_KILL_AT): SIGSTOP or SIGKILL of this process, the first time that it comes by.
// `--stop-at` says so with an event before.
class Steps {
  public:
    std::string stop_at, kill_at;
    std::function<void(const char *name)> seen;  // for tests and for --json --verbose
    void at(const char *name);
};

}  // namespace agent
