// agent/prune.h: removing old backups
// SPDX-License-Identifier: GPL-2.0-only
//
// What stays can be restored as before: a backup that builds on one that goes is merged with it
// first. The steps, and what a crash leaves:
//   1  the merged image, hashes, map and manifest under temporary names, synced and compared with
//      what they replace                       they are swept up by the next writer
//   2  prune.json, durable: what gets its name, and what is removed
//                                              from here on the next writer does the rest
//   3  the renames, the manifest last; then the removals, manifests first
//   4  prune.json goes
#pragma once

#include "agent/events.h"
#include "agent/image.h"
#include "agent/steps.h"
#include "agent/store.h"

namespace agent {

struct PruneOptions {
    std::string store;
    uint64_t keep_count = 0, keep_days = 0;  // 0: not given; a backup that either keeps stays
    bool dry_run = false;
};

int prune(ImageTool &images, Events &events, const PruneOptions &options);

// Finishes what a prune that did not end has decided, or sweeps up what it had not. The store is
// locked for writing.
void finish_prune(Store &store);

}  // namespace agent
