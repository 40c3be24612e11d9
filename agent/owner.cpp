// agent/owner.cpp: one agent at a node at a time, and for which store its maps were cleared
// SPDX-License-Identifier: GPL-2.0-only
//
// Both stand beside the node's bitmap files, which only one driver uses. Without the note, two
// stores that back up one node in turn would each lack what the other one's runs cleared.
#include "agent/backup.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace agent {
namespace {

constexpr const char *owner_format = "trak-map-owner 1";

std::string owner_path(const FilterNode &filter) {
    return fmt::format("{}/trak{}.owner", filter.bmp_dir, filter.id.minor);
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
        return {object.at("store").get<std::string>(), object.at("folder").get<std::string>()};
    } catch (const nlohmann::json::exception &) {
        return {"unknown", path + " can't be read"};
    } catch (const Failure &failure) {
        return {"unknown", failure.text};
    }
}

void note_map_owner(const FilterNode &filter, const Store &store) {
    files::replace_durably(owner_path(filter), sealed_text({{"format", owner_format},
                                                            {"node", filter.id.uuid},
                                                            {"store", store.head().store},
                                                            {"folder", store.folder()}}));
}

}  // namespace agent
