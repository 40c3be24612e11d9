// agent/recover.cpp: settling a run that did not end
// SPDX-License-Identifier: GPL-2.0-only
//
// What is found, and what it means:
//   manifest of the run's own        the backup is there whole: the map's duty is over
//   no manifest, no marker, no map   nothing was cleared
//   no manifest, a map               it was cleared, and this is what was in it: it is merged back.
//                                    Twice does no harm: merging can only add marks
//   no manifest, a marker, no map    it may have been cleared, and nobody knows what was in it:
//                                    everything is marked
// The order: the map first, then the snapshot, then the partial files, then the record of the run. A
// crash in between leaves the record, and all is done again.
#include "agent/backup.h"

#include "agent/bits.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace agent {
namespace {

constexpr MapType both_types[] = {MapType::incr, MapType::diff};

void save_or_say(const Context &c, uint32_t minor, MapType type) {
    // The driver has the marks. A crash before it can save them is answered with "everything
    // changed", so nothing is lost; but the user should know.
    try {
        c.driver.save_map(minor, type);
    } catch (const Failure &failure) {
        c.events.notice(failure.text);
    }
}

void mark_everything(const Context &c, const FilterNode &filter, MapType type,
                     const std::string &why) {
    c.driver.set_everything(filter.id.minor, type);
    save_or_say(c, filter.id.minor, type);
    c.events.notice(fmt::format("everything counts as changed in the {} map of node {}: {}",
                                map_type_name(type), filter.id.minor, why));
}

void give_back(const Context &c, const Store &store, const FilterNode &filter,
               const std::string &run, MapType type) {
    bool marker = files::exists(store.marker_path(map_type_name(type)));
    std::string path = store.held_map_path(map_type_name(type));
    std::optional<Map> map;
    std::string why = "a run was ended while it took the map";
    try {
        if (auto bytes = files::read_file(path))
            map = map_from_file(path, *bytes, run);
    } catch (const Failure &failure) {
        // A map that can't be read is as good as none, and it was cleared.
        marker = true;
        why = failure.text;
    }
    if (!map && !marker)
        return;
    if (map && (map->disk_size() != filter.id.size || map->unit_size() != filter.id.extent_size)) {
        map.reset();
        why = "the node's size or its extents changed since a run took the map";
    }
    if (!map) {
        mark_everything(c, filter, type, why);
        return;
    }
    c.driver.merge_map(filter.id.minor, type, *map);
    save_or_say(c, filter.id.minor, type);
    c.events.say("map-given-back", {{"type", map_type_name(type)}, {"extents", map->marked()}},
                 fmt::format("gave {} extents back to the {} map of node {}", map->marked(),
                             map_type_name(type), filter.id.minor));
}

// A program that looked at the new node (as udev does) may have it open for a moment.
std::string remove_patiently(const Context &c, uint32_t minor) {
    for (int tries = 0;; tries++) {
        try {
            return c.driver.remove_snap(minor);
        } catch (const Failure &failure) {
            if (failure.error != EBUSY || tries == 100)
                throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

void remove_snapshot(const Context &c, const RunRecord &record) {
    if (record.snap_uuid.empty())
        return;
    if (auto snap = c.driver.find_snap(record.snap_uuid)) {
        std::string notice = remove_patiently(c, snap->minor);
        if (!notice.empty())
            c.events.notice(notice);
        // Its files are in use as long as an older snapshot runs; the driver removes them then.
        if (c.driver.find_snap(record.snap_uuid))
            return;
    }
    files::remove_file(record.cow_bmp);
    files::remove_file(record.cow_data);
}

// What no snapshot uses: left by one of which the deletion was postponed when its driver was killed, or
// by a run whose record can't be read.
void sweep_cow_files(const Context &c, const Store &store, const std::string &folder) {
    std::vector<std::string> used = c.driver.cow_files();
    try {
        for (const std::string &name : files::names_in(folder)) {
            std::string path = folder + "/" + name;
            if (name.rfind(cow_prefix(store), 0) == 0 &&
                std::find(used.begin(), used.end(), path) == used.end())
                files::remove_file(path);
        }
    } catch (const Failure &failure) {
        // A folder that is not there any more must not keep backups from being made elsewhere.
        c.events.notice(failure.text);
    }
}

void remove_partial(const Store &store, const RunRecord &record) {
    // A backup of another run is not this one's to remove, whatever its record says.
    bool another = store.find(record.id) != nullptr;
    for (const char *suffix : {".json", ".map", ".hashes", ".qcow2"}) {
        files::remove_file(store.path(record.id + suffix + ".partial"));
        if (!another)
            files::remove_file(store.path(record.id + suffix));
    }
}

void end_record(const Context &c, const Store &store) {
    for (MapType type : both_types) {
        std::string name = map_type_name(type);
        files::remove_file(store.marker_path(name));
        files::remove_file(store.held_map_path(name) + ".new");
        files::remove_file(store.held_map_path(name));
    }
    // A map of this run must not be there when the next one writes its record.
    files::sync_path(store.folder());
    c.steps.at("map-released");
    files::remove_file(store.run_path());
    files::sync_path(store.folder());
    c.steps.at("ended");
}

// The record can't be read: all that it might have said is assumed.
void settle_unknown(const Context &c, Store &store, const FilterNode &filter,
                    const std::string &why) {
    for (MapType type : both_types)
        mark_everything(c, filter, type, why);
    for (uint32_t minor : c.driver.filter(filter.id.minor).snaps) {
        SnapNode snap = c.driver.snap(minor);
        std::string name = snap.cow_data.substr(snap.cow_data.rfind('/') + 1);
        if (name.rfind(cow_prefix(store), 0) == 0) {
            std::string notice = remove_patiently(c, minor);
            if (!notice.empty())
                c.events.notice(notice);
        }
    }
    for (const std::string &name : files::names_in(store.folder()))
        if (name.size() > 8 && name.compare(name.size() - 8, 8, ".partial") == 0)
            files::remove_file(store.path(name));
    sweep_cow_files(c, store, store.folder());
    end_record(c, store);
}

}  // namespace

void return_map(const Context &c, const Store &store, const FilterNode &filter, MapType type,
                const Map &map) {
    try {
        c.driver.merge_map(filter.id.minor, type, map);
        c.driver.save_map(filter.id.minor, type);
        files::remove_file(store.marker_path(map_type_name(type)));
    } catch (const Failure &failure) {
        c.events.notice(failure.text);
    }
}

std::string cow_prefix(const Store &store) {
    return fmt::format("trak-backup-{}-", store.head().store.substr(1, 8));
}

void name_snapshot(const Store &store, const std::string &cow_dir, RunRecord &record) {
    std::string cow =
        fmt::format("{}/{}{}-{}", cow_dir, cow_prefix(store), record.id, record.run.substr(1, 8));
    record.snap_uuid = new_uuid();
    record.cow_bmp = cow + ".cowmap";
    record.cow_data = cow + ".cow";
}

bool settle_run(const Context &c, Store &store, const FilterNode &filter) {
    std::optional<RunRecord> record;
    try {
        record = store.run_record();
    } catch (const Failure &failure) {
        // What can't be read now may be read later; what is damaged stays so.
        if (failure.error != 0)
            throw;
        c.steps.at("settling");
        settle_unknown(c, store, filter, failure.text);
        return true;
    }
    if (!record)
        return false;
    c.steps.at("settling");
    store.scan();
    const Manifest *made = store.find(record->id);
    bool committed = made != nullptr && made->run == record->run;
    if (committed) {
        // It was renamed; whether that was synced is not known.
        files::sync_path(store.folder());
        note_cleared(filter, store, *made);
    }
    if (record->node.uuid != filter.id.uuid) {
        if (!committed)
            c.events.notice(fmt::format(
                "the map of an unfinished run of node {} is dropped: the node is {} now, and its "
                "next backup is a full one",
                record->node.uuid, filter.id.uuid));
    } else if (!committed) {
        for (MapType type : both_types)
            give_back(c, store, filter, record->run, type);
    }
    c.steps.at("given-back");
    remove_snapshot(c, *record);
    sweep_cow_files(c, store, files::folder_of(record->cow_data));
    c.steps.at("snap-removed");
    if (!committed)
        remove_partial(store, *record);
    c.steps.at("swept");
    end_record(c, store);
    store.scan();
    return true;
}

}  // namespace agent
