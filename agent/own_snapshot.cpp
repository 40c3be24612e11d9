// agent/own_snapshot.cpp: reads of the snapshot that a run started, and of no other
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/own_snapshot.h"

#include <fmt/format.h>

namespace agent {

SnapNode OwnSnapshot::checked(const Driver &driver) const {
    auto snap = driver.find_snap(uuid);
    if (!snap || snap->minor != minor || !snap->started || snap->stop_pending)
        throw Failure("the snapshot was stopped or deleted by somebody else");
    if (!snap->valid)
        throw Failure(
            fmt::format("the snapshot became invalid: {} had no room, or failed, for what "
                        "was written to the disk meanwhile; make room there, or give a "
                        "--cow-dir on a larger file system",
                        cow_folder),
            EIO);
    return *snap;
}

}  // namespace agent
