// agent/manifest.h: what a store says about itself and about each backup, as JSON files
// SPDX-License-Identifier: GPL-2.0-only
//
// docs/backup-manifest.schema.json is the published form. The text of a file is canonical: the
// object as this file prints it, with a checksum over it, so that any changed byte is found.
#pragma once

#include "agent/failure.h"

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace agent {

enum class Kind { full, incr, diff };
const char *kind_name(Kind kind);
Kind kind_of(const std::string &name);

// The node that a backup was taken of.
struct NodeId {
    std::string uuid, name, disk;
    uint32_t minor = 0;
    uint64_t size = 0;         // bytes
    uint32_t extent_size = 0;  // bytes
    // Whether maps of the one tell of the other.
    bool same_maps(const NodeId &other) const {
        return uuid == other.uuid && size == other.size && extent_size == other.extent_size;
    }
};

struct FileEntry {
    std::string file;  // name in the store
    uint64_t size = 0;
    std::string checksum;
};

struct AuditResult {
    uint64_t blocks = 0;            // compared with the chain
    uint64_t differing = 0;         // silent misses
    std::vector<uint64_t> extents;  // the first of those, at most 64
};

struct Manifest {
    std::string id;  // "000002-incr"
    uint64_t number = 0;
    Kind kind = Kind::full;
    std::string parent;  // id of the backup that this one builds on; empty for a full one
    // Pruned backups whose content went into this one. It may have become a full one by that.
    std::vector<std::string> merged;
    std::string run;     // uuid of the run that made it
    std::string store;   // uuid of the store
    std::string tool;    // "trak-backup 0.1.0"
    std::string reason;  // why the run was a full one although another was asked for
    NodeId node;
    uint32_t block_size = 0;  // bytes under one hash, and a cluster of the image
    uint64_t seed = 0;        // of the hashes
    // UTC, 2024-05-17T08:30:00.123Z
    std::string begun, frozen, ended;
    // The map: extents that were copied, and where that comes from.
    uint64_t extents_mapped = 0;        // in the map that was taken
    uint64_t extents_after_freeze = 0;  // in the map that was read after the snapshot was started
    uint64_t extents_copied = 0;
    uint64_t extents_unchanged = 0;  // of these: in every block as they were in the chain
    uint64_t bytes_mapped = 0;       // of disk under the copied extents
    uint64_t bytes_read = 0;         // from the snapshot, for the copy
    uint64_t bytes_audited = 0;      // from the snapshot, for the audit
    uint64_t bytes_written = 0;      // data into the image
    uint64_t bytes_zero = 0;         // blocks of zeros
    uint64_t bytes_unchanged = 0;    // reported as changed, and as they were in the chain
    std::vector<std::pair<std::string, double>> seconds;  // time spent, by phase
    FileEntry image, hashes, map;
    AuditResult audit;
};

std::string manifest_text(const Manifest &manifest);
// Throws Failure that names `path` and says what is wrong.
Manifest manifest_from(const std::string &path, const std::string &text);

// The canonical text of an object: sorted keys, two blanks of indent, "checksum" over the rest.
std::string sealed_text(nlohmann::json object);
// The object of a text that sealed_text() made; throws Failure on any other text.
nlohmann::json sealed_from(const std::string &path, const std::string &text);

// store.json
struct StoreHead {
    std::string store;  // uuid
    std::string created, tool;
    uint64_t seed = 0;
};
std::string store_head_text(const StoreHead &head);
StoreHead store_head_from(const std::string &path, const std::string &text);

// run.json: what a run that is under way has to undo or to finish; see protocol.h.
struct RunRecord {
    std::string run, id;  // uuid; of the backup that it makes
    Kind kind = Kind::full;
    NodeId node;
    std::string snap_uuid, cow_bmp, cow_data;
    std::string begun;
};
std::string run_record_text(const RunRecord &record);
RunRecord run_record_from(const std::string &path, const std::string &text);

std::string new_uuid();
std::string now_text();

}  // namespace agent
