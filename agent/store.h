// agent/store.h: the folder that holds one disk's backups
// SPDX-License-Identifier: GPL-2.0-only
//
// Layout   store.json             the store's own uuid and the seed of its hashes
//          NNNNNN-KIND.json       manifest: the backup is there if, and only if, this is
//          NNNNNN-KIND.qcow2      image; its backing file is the parent's image
//          NNNNNN-KIND.map        the extents that were copied
//          NNNNNN-KIND.hashes     a hash for each block that was copied
//          *.partial              what a run is making
//          run.json, run.*        what a run that is under way has to undo (protocol.h)
//          lock, readers.lock     who works here (flock)
// Backups are never changed once they are there, but by prune.
#pragma once

#include "agent/files.h"
#include "agent/manifest.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace agent {

// A backup of which the manifest can't be read.
struct DamagedEntry {
    std::string id, why;
};

class Store {
  public:
    // An existing store; `create` makes the folder and store.json where there are none.
    enum Open { existing, create };
    Store(const std::string &folder, Open how);

    const std::string &folder() const { return folder_; }
    std::string path(const std::string &name) const { return folder_ + "/" + name; }
    const StoreHead &head() const { return head_; }
    // What is wrong with store.json although the store can be read, or empty.
    const std::string &head_fault() const { return head_fault_; }

    // Reads the folder anew.
    void scan();
    // By number, ascending.
    const std::vector<Manifest> &backups() const { return backups_; }
    const std::vector<DamagedEntry> &damaged() const { return damaged_; }
    const Manifest *find(const std::string &id) const;
    // "latest", an id, or a number; throws Failure where there is none.
    const Manifest &point(const std::string &text) const;
    // From the full backup to `id`; throws Failure where one of them is missing.
    std::vector<const Manifest *> chain(const std::string &id) const;
    // The newest backup that `kind` would build on, or null: of a diff the last full one, of an incr
    // the last full or incremental one.
    const Manifest *base_for(Kind kind) const;
    uint64_t next_number() const { return highest_ + 1; }
    static std::string id_of(uint64_t number, Kind kind);

    // The exclusive lock of backup, prune and recovery; throws Failure with the holder's pid.
    files::Fd lock_for_writing() const;
    // Held by whoever reads backups; prune excludes them.
    files::Fd lock_for_reading() const;
    files::Fd lock_readers_out() const;

    std::optional<RunRecord> run_record() const;
    std::string run_path() const { return path("run.json"); }
    std::string marker_path(const std::string &type) const {
        return path("run." + type + ".marker");
    }
    std::string held_map_path(const std::string &type) const {
        return path("run." + type + ".map");
    }

  private:
    void read_head(Open how);
    std::string folder_;
    StoreHead head_;
    std::string head_fault_;
    std::vector<Manifest> backups_;
    std::vector<DamagedEntry> damaged_;
    uint64_t highest_ = 0;
};

// flock(2) without waiting. Where another process holds it, Failure with the pid that it wrote there.
files::Fd take_lock(const std::string &path, const std::string &what);

}  // namespace agent
