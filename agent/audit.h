// agent/audit.h: reading what no map calls changed, and comparing it with the chain
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/bits.h"
#include "agent/events.h"
#include "agent/hashes.h"
#include "agent/manifest.h"
#include "agent/store.h"

#include <functional>

namespace agent {

struct AuditJob {
    int source = -1;  // a snapshot
    uint64_t disk_size = 0;
    uint32_t block_size = 0, extent_size = 0;
    uint64_t seed = 0;
    const Map *changed = nullptr;  // extents that are left out
    ChainHashes *chain = nullptr;
    uint64_t sample = 0;                                      // blocks; 0: all
    std::function<void(uint64_t done, uint64_t total)> turn;  // bytes; may throw
};

struct AuditOutcome {
    AuditResult result;
    uint64_t bytes_read = 0;
    uint64_t blocks_skipped = 0;  // marked, or free when the chain was begun
};

// Of a disk, in blocks and with the seed of a backup of it. A sample and a turn are still to be given.
AuditJob audit_job(const Manifest &like, int source, const Map &changed, ChainHashes &chain);

// Blocks that the chain does not hold are left out: they were free at the full backup, and no write
// to them was marked since.
AuditOutcome audit_blocks(const AuditJob &job);

// What the audit found, against the chain that ends with `base`. Where blocks differ, the chain's
// hash files are compared with what they were: one that is damaged differs from a good disk too.
void say_audit(Events &events, const AuditResult &result, const Store &store, const Manifest &base);

}  // namespace agent
