// agent/owner.cpp: one agent at a node at a time, and for which store its maps were cleared
// SPDX-License-Identifier: GPL-2.0-only
//
// Both stand beside the node's bitmap files, which only one driver uses. Without the note, two
// stores that back up one node in turn would each lack what the other one's runs cleared.
#include "agent/backup.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace agent {
namespace {

constexpr const char *owner_format = "trak-map-owner 1";

std::string owner_path(const FilterNode &filter) {
    return fmt::format("{}/trak{}.owner", filter.bmp_dir, filter.id.minor);
}

void write(const FilterNode &filter, const MapOwner &owner) {
    files::replace_durably(owner_path(filter), sealed_text({{"format", owner_format},
                                                            {"node", filter.id.uuid},
                                                            {"store", owner.store},
                                                            {"folder", owner.folder},
                                                            {"incr", owner.incr},
                                                            {"diff", owner.diff}}));
}

}  // namespace

files::Fd lock_node(const FilterNode &filter) {
    return take_lock(fmt::format("{}/trak{}.agent", filter.bmp_dir, filter.id.minor),
                     fmt::format("node {}", filter.id.minor));
}

MapOwner map_owner(const FilterNode &filter) {
    std::string path = owner_path(filter);
    auto text = files::read_text(path);
    if (!text)
        return {};
    try {
        nlohmann::json object = sealed_from(path, *text);
        // Another node had this minor before: its note says nothing about this one.
        if (object.at("format") != owner_format || object.at("node") != filter.id.uuid)
            return {};
        return {object.at("store").get<std::string>(), object.at("folder").get<std::string>(),
                object.at("incr").get<uint64_t>(), object.at("diff").get<uint64_t>()};
    } catch (const nlohmann::json::exception &) {
        return {"unknown", path + " can't be read", 0, 0};
    } catch (const Failure &failure) {
        return {"unknown", failure.text, 0, 0};
    }
}

void claim_maps(const FilterNode &filter, const Store &store) {
    MapOwner owner = map_owner(filter);
    if (owner.store != store.head().store)
        write(filter, {store.head().store, store.folder(), 0, 0});
}

void note_cleared(const FilterNode &filter, const Store &store, const Manifest &made) {
    if (made.node.uuid != filter.id.uuid || made.kind == Kind::diff)
        return;
    MapOwner owner = map_owner(filter);
    if (owner.store != store.head().store)
        return;  // another store took them over since
    owner.incr = std::max(owner.incr, made.number);
    if (made.kind == Kind::full)
        owner.diff = std::max(owner.diff, made.number);
    write(filter, owner);
}

}  // namespace agent
