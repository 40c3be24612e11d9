// agent/base.h: whether a backup can build on what a store holds
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/backup.h"

#include <string>

namespace agent {

// Empty: an incremental or differential backup of the node can build on `base` (store.base_for(kind)).
// Otherwise why not, as a sentence without its full stop.
std::string fault_of_base(const Store &store, const FilterNode &filter, const Manifest *base,
                          Kind kind);

}  // namespace agent
