// agent/list.cpp: the backups of a store, listed
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/list.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace agent {

std::string fault_of(const Store &store, const Manifest &manifest) {
    try {
        for (const Manifest *part : store.chain(manifest.id))
            if (!files::exists(store.path(part->image.file)))
                return fmt::format("{} is missing", part->image.file);
    } catch (const Failure &failure) {
        return failure.text;
    }
    return "";
}

namespace {

void list_one(Events &events, const Manifest &m, const std::string &fault) {
    nlohmann::json fields = nlohmann::json::parse(manifest_text(m));
    fields.erase("checksum");
    fields["fault"] = fault;
    std::string text =
        fmt::format("{:<14} {:<24} {:<14} {:>9} {:>9}  {}", m.id, m.frozen,
                    m.parent.empty() ? "-" : m.parent, size_text(m.bytes_mapped),
                    size_text(m.image.size), fault.empty() ? "" : "BROKEN: " + fault);
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    events.say("backup", fields, text);
}

}  // namespace

int list_backups(Events &events, const std::string &folder) {
    Store store(folder, Store::existing);
    files::Fd lock = store.lock_for_reading();
    int status = 0;
    if (!store.head_fault().empty())
        events.notice(store.head_fault());
    if (!events.json)
        events.say("", {},
                   fmt::format("{:<14} {:<24} {:<14} {:>9} {:>9}", "BACKUP", "FROZEN", "BUILDS ON",
                               "CHANGED", "IMAGE"));
    for (const Manifest &manifest : store.backups()) {
        std::string fault = fault_of(store, manifest);
        if (!fault.empty())
            status = status_failed;
        list_one(events, manifest, fault);
    }
    for (const DamagedEntry &entry : store.damaged()) {
        status = status_failed;
        events.say("damaged", {{"id", entry.id}, {"fault", entry.why}},
                   fmt::format("{:<14} DAMAGED: {}", entry.id, entry.why));
    }
    if (files::exists(store.run_path()))
        events.notice("a run is under way, or ended without order; the next one settles it");
    return status;
}

}  // namespace agent
