// agent/verify.h: every file of a store, compared with what it was
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/events.h"
#include "agent/image.h"

#include <string>

namespace agent {

struct VerifyOptions {
    std::string store;
    bool quick = false;  // checksums only
};

// Reads every file of the store and names each one that is missing, or not as it was made, with the
// backups that are lost by it. Then, unless `quick`, reads every point that no other one builds on
// through its chain, and compares each block with its hash. Exit status: 1 where anything is wrong.
int verify(ImageTool &images, Events &events, const VerifyOptions &options);

}  // namespace agent
