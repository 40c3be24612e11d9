// agent/steps.cpp: the named steps of a backup, at which tests stop or kill it
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/steps.h"

#include <csignal>

#include <unistd.h>

namespace agent {

const std::vector<StepName> &step_names() {
    static const std::vector<StepName> names = {
        {"locked", "store and node are locked", true, true, true},
        {"recovered", "nothing of an earlier run is left", true, true, true},
        {"recorded", "the run's record is durable", true, true, true},
        {"snap-made", "the snap node is there, stopped", true, true, true},
        {"incr-marked", "the marker of the incremental map is durable", true, true, false},
        {"incr-taken", "the incremental map was cleared and is in memory only", true, true, false},
        {"incr-written", "it is written under a temporary name, and synced", true, true, false},
        {"incr-held", "it is durable; the marker is there still", true, true, false},
        {"incr-unmarked", "the marker is gone", true, true, false},
        {"diff-marked", "the same of the differential map", true, false, false},
        {"diff-taken", "the same", true, false, false},
        {"diff-written", "the same", true, false, false},
        {"diff-held", "the same", true, false, false},
        {"diff-unmarked", "the same", true, false, false},
        {"frozen", "the snapshot is started", true, true, true},
        {"map-read", "the map was read again (of a full backup: the data-block map)", true, true,
         true},
        {"image-made", "the empty image is there under its temporary name", true, true, true},
        {"copy-begun", "a first request was copied", true, true, true},
        {"copy-half", "half of the bytes are copied", true, true, true},
        {"copied", "all are copied and flushed", true, true, true},
        {"audited", "the sample of unchanged extents was compared", false, true, false},
        {"image-checked", "the image is closed, synced and checked", true, true, true},
        {"sealed", "all files are synced under their temporary names", true, true, true},
        {"image-renamed", "the image has its name", true, true, true},
        {"files-renamed", "map and hashes have their names too, durably", true, true, true},
        {"manifest-renamed", "the manifest has its name; its folder is not synced", true, true,
         true},
        {"committed", "the folder is synced: the backup is there", true, true, true},
        {"settling", "the run is settled: at its end, after a failure, or at the next start", true,
         true, true},
        {"given-back", "without a backup: the map was merged into the driver's", true, true, true},
        {"snap-removed", "the snapshot and its files are gone", true, true, true},
        {"swept", "without a backup: the partial files are gone", true, true, true},
        {"map-released", "the map that was taken is removed", true, true, true},
        {"ended", "the run's record is removed", true, true, true},
    };
    return names;
}

bool is_step(const std::string &name) {
    for (const StepName &step : step_names())
        if (name == step.name)
            return true;
    return false;
}

void Steps::at(const char *name) {
    if (seen)
        seen(name);
    if (kill_at == name)
        kill(getpid(), SIGKILL);
    if (stop_at == name) {
        stop_at.clear();
        raise(SIGSTOP);
    }
}

}  // namespace agent
