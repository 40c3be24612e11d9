// agent/own_snapshot.h: reads of the snapshot that a run started, and of no other
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/driver.h"

#include <cerrno>
#include <string>

namespace agent {

struct OwnSnapshot {
    std::string uuid;
    uint32_t minor = 0;
    std::string cow_folder;

    // Throws Failure where it is no image any more of the moment at which it was started: stopped or
    // deleted by somebody else (another may have its minor by now), or invalid.
    SnapNode checked(const Driver &driver) const;

    // What was read counts only where the snapshot is valid after the last read; and where it is not,
    // that says more than the read that failed.
    template <class Read> auto reading(const Driver &driver, Read read) const {
        try {
            auto result = read();
            checked(driver);
            return result;
        } catch (const Failure &failure) {
            if (failure.error != ENOTCONN)
                checked(driver);
            throw;
        }
    }
};

}  // namespace agent
