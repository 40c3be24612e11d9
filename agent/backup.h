// agent/backup.h: one backup, from the lock to the durable manifest
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/driver.h"
#include "agent/events.h"
#include "agent/image.h"
#include "agent/steps.h"
#include "agent/store.h"

#include <string>

namespace agent {

// What commands work with; tests put their own in.
struct Context {
    Driver &driver;
    ImageTool &images;
    Events &events;
    Steps &steps;
};

struct BackupOptions {
    Kind kind = Kind::full;
    std::string disk, store;
    std::string cow_dir;          // empty: the store
    uint32_t chunk_size = 65536;  // of the snapshot, where the filter has none yet
    bool no_full = false;         // refuse where a full backup would be needed
    int64_t audit_sample = -1;    // blocks; -1: a share of what is copied
    uint64_t cow_reserve = 0;     // bytes that must be free for COW data; 0: a share of the disk
};

// The exit status: 0; 3: the backup was made, and the audit found blocks that no map told of.
// Throws Failure or Interrupted, after the run was taken back as far as the driver answers.
int make_backup(const Context &context, const BackupOptions &options);

inline constexpr int status_audit = 3;

struct AuditOptions {
    std::string disk, store, cow_dir;
    uint32_t chunk_size = 65536;
    uint64_t cow_reserve = 0;
    bool all = false;
    int64_t sample = -1;  // blocks; -1: a default
};

// Compares what the incremental map calls unchanged with the chain, on a snapshot of its own. The
// exit status: 0, or 3 where blocks differ.
int make_audit(const Context &context, const AuditOptions &options);

// Settles what a run of this store that did not end has left: gives its map back unless its backup
// was made, removes its snapshot and partial files, and its record last. Called by every command
// that writes, with the store locked, before anything else. Nothing to do: returns false.
bool settle_run(const Context &context, Store &store, const FilterNode &filter);

// Gives a map back that is in memory only, because the store has no room for it: nobody else has it.
// Where the driver takes it, it is not unknown; where not, the marker stays and says that it is.
void return_map(const Context &context, const Store &store, const FilterNode &filter, MapType type,
                const Map &map);

// Gives a record the identifier of the run's snapshot and the names of its COW files. They are this
// run's alone: those of a run that was killed may be in use until an older snapshot ends.
void name_snapshot(const Store &store, const std::string &cow_dir, RunRecord &record);
// The beginning of the names of all COW files that runs of this store make.
std::string cow_prefix(const Store &store);

// The lock of a node against two agents.
files::Fd lock_node(const FilterNode &filter);

// A note beside the node's bitmap files: for which store its maps are cleared, and the number of the
// backup that cleared each last. A backup may build on one of at least that number.
struct MapOwner {
    std::string store, folder;  // empty: nobody has cleared them
    uint64_t incr = 0, diff = 0;
};
MapOwner map_owner(const FilterNode &filter);
// Before a map is cleared for this store.
void claim_maps(const FilterNode &filter, const Store &store);
// When a backup is there.
void note_cleared(const FilterNode &filter, const Store &store, const Manifest &made);

}  // namespace agent
