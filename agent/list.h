// agent/list.h: the backups of a store, listed
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/events.h"
#include "agent/store.h"

#include <string>

namespace agent {

// What keeps a backup from being restored, or empty: its chain, and that the images are there.
std::string fault_of(const Store &store, const Manifest &manifest);

// Exit status: 1 where a manifest is damaged or a chain is broken, else 0.
int list_backups(Events &events, const std::string &store);

}  // namespace agent
