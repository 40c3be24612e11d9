// agent/prune.cpp: removing old backups
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/prune.h"

#include "agent/bits.h"
#include "agent/checksum.h"
#include "agent/hashes.h"
#include "agent/version.h"

#include <algorithm>
#include <ctime>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace agent {
namespace {

constexpr const char *prune_format = "trak-backup-prune 1";
constexpr const char *suffixes[] = {".qcow2", ".hashes", ".map", ".json"};

std::string prune_path(const Store &store) {
    return store.path("prune.json");
}

bool ends_with_partial(const std::string &name) {
    const std::string tail = ".partial";
    return name.size() > tail.size() &&
           name.compare(name.size() - tail.size(), tail.size(), tail) == 0;
}

// A day `days` ago, as manifests write times.
std::string days_ago(uint64_t days) {
    std::time_t then = std::time(nullptr) - static_cast<std::time_t>(days * 86400);
    std::tm tm = {};
    gmtime_r(&then, &tm);
    char text[32];
    return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &tm));
}

struct Plan {
    std::set<std::string> keep;
    std::vector<const Manifest *> merge;  // kept, and their parent goes
    std::vector<const Manifest *> remove;
    std::vector<std::string> held;  // would go, but too many build on them
};

class Prune {
  public:
    Prune(ImageTool &images, Events &events, const PruneOptions &options, Store &store)
        : images_(images), events_(events), o_(options), store_(store) {}

    int run() {
        Plan plan = decide();
        nlohmann::json gone = nlohmann::json::array();
        for (const Manifest *manifest : plan.remove)
            gone.push_back(manifest->id);
        nlohmann::json merged = nlohmann::json::array();
        for (const Manifest *manifest : plan.merge)
            merged.push_back(manifest->id);
        for (const std::string &id : plan.held)
            events_.notice(
                fmt::format("{} stays: more than one backup that is kept builds on it", id));
        if (!o_.dry_run && !plan.remove.empty())
            carry_out(plan);
        events_.say("pruned", {{"removed", gone}, {"merged", merged}, {"dry_run", o_.dry_run}},
                    fmt::format("{} backups {}, {} {} merged with what they build on",
                                plan.remove.size(), o_.dry_run ? "would go" : "removed",
                                plan.merge.size(), o_.dry_run ? "would be" : "were"));
        return status_ok;
    }

  private:
    Plan decide() {
        const auto &all = store_.backups();
        Plan plan;
        if (!store_.damaged().empty())
            throw Failure(store_.damaged().front().why +
                          ": nothing is pruned before that is solved");
        std::string since = o_.keep_days > 0 ? days_ago(o_.keep_days) : "~";
        for (size_t i = 0; i < all.size(); i++) {
            bool newest = i + std::max<uint64_t>(o_.keep_count, 1) >= all.size();
            if (newest || all[i].frozen >= since)
                plan.keep.insert(all[i].id);
            (void)store_.chain(all[i].id);  // a broken chain is not made worse
        }
        hold_shared_roots(plan);
        for (const Manifest &manifest : all) {
            if (plan.keep.count(manifest.id) == 0)
                plan.remove.push_back(&manifest);
            else if (!manifest.parent.empty() && plan.keep.count(manifest.parent) == 0)
                plan.merge.push_back(&manifest);
        }
        return plan;
    }

    // The nearest kept backup below, or null.
    const Manifest *kept_below(const Plan &plan, const Manifest &manifest) const {
        const Manifest *at = &manifest;
        while (!at->parent.empty()) {
            at = store_.find(at->parent);
            if (plan.keep.count(at->id) > 0)
                return at;
        }
        return nullptr;
    }

    // A full backup under several kept ones stays, for each of them would hold a copy of it.
    void hold_shared_roots(Plan &plan) {
        std::map<std::string, unsigned> heirs;
        for (const Manifest &manifest : store_.backups())
            if (plan.keep.count(manifest.id) > 0 && !manifest.parent.empty() &&
                kept_below(plan, manifest) == nullptr)
                heirs[store_.chain(manifest.id).front()->id]++;
        for (const auto &[root, count] : heirs)
            if (count > 1) {
                plan.keep.insert(root);
                plan.held.push_back(root);
            }
    }

    void carry_out(const Plan &plan) {
        nlohmann::json renames = nlohmann::json::array(), removals = nlohmann::json::array();
        // In rising order, so that a later one can't build on an image that is replaced under it:
        // what they show stays the same, whichever of the two files is there.
        for (const Manifest *manifest : plan.merge) {
            merge(plan, *manifest);
            renames.push_back(manifest->id);
        }
        for (const Manifest *manifest : plan.remove)
            removals.push_back(manifest->id);
        files::sync_path(store_.folder());
        check_interrupt();
        files::replace_durably(
            prune_path(store_),
            sealed_text({{"format", prune_format}, {"rename", renames}, {"remove", removals}}));
        finish_prune(store_);
    }

    std::string partial(const Manifest &manifest, const char *suffix) const {
        return store_.path(manifest.id + suffix + ".partial");
    }

    FileEntry entry(const Manifest &manifest, const char *suffix) const {
        std::string path = partial(manifest, suffix);
        return {manifest.id + suffix, files::size_of(path), checksum_file(path, check_interrupt)};
    }

    void merge(const Plan &plan, const Manifest &manifest) {
        const Manifest *below = kept_below(plan, manifest);
        std::vector<const Manifest *> parts = store_.chain(manifest.id);
        while (below != nullptr && parts.front()->number <= below->number)
            parts.erase(parts.begin());
        events_.say("merge", {{"id", manifest.id}, {"below", below ? below->id : ""}},
                    fmt::format("merging {} with what it builds on", manifest.id));
        Manifest made = manifest;
        made.parent = below != nullptr ? below->id : "";
        made.kind = below != nullptr ? manifest.kind : Kind::full;
        made.tool = tool_name;
        std::string image = partial(manifest, ".qcow2");
        images_.merge(store_.path(manifest.image.file), image, manifest.block_size,
                      below != nullptr ? below->image.file : "");
        images_.check(image);
        images_.compare(store_.path(manifest.image.file), image);
        files::sync_path(image);
        merge_maps(parts, made);
        merge_hashes(parts, manifest);
        made.image = entry(manifest, ".qcow2");
        made.hashes = entry(manifest, ".hashes");
        made.map = entry(manifest, ".map");
        std::string text = manifest_text(made);
        files::write_synced(partial(manifest, ".json"), text.data(), text.size());
    }

    void merge_maps(const std::vector<const Manifest *> &parts, Manifest &made) {
        Map map(made.node.size, made.node.extent_size);
        for (const Manifest *part : parts) {
            std::string path = store_.path(part->map.file);
            auto bytes = files::read_file(path);
            if (!bytes)
                throw Failure(path + " is missing");
            map.add(map_from_file(path, *bytes, part->run));
            for (const std::string &id : part->merged)
                if (part->id != made.id)
                    made.merged.push_back(id);
            if (part->id != made.id)
                made.merged.push_back(part->id);
        }
        std::vector<uint8_t> bytes = map_file_bytes(map, made.run);
        files::write_synced(partial(made, ".map"), bytes.data(), bytes.size());
    }

    void merge_hashes(const std::vector<const Manifest *> &parts, const Manifest &manifest) {
        HashWriter writer(partial(manifest, ".hashes"), manifest.node.size, manifest.block_size);
        // From the bottom upwards: what lies higher overwrites.
        for (const Manifest *part : parts) {
            HashReader reader(store_.path(part->hashes.file), manifest.node.size,
                              manifest.block_size);
            for (uint64_t block = reader.next(0); block < reader.blocks();
                 block = reader.next(block + 1)) {
                Hash hash = reader.get(block);
                writer.put(block, &hash, 1);
                check_interrupt();
            }
        }
        writer.sync();
    }

    ImageTool &images_;
    Events &events_;
    const PruneOptions &o_;
    Store &store_;
};

}  // namespace

void finish_prune(Store &store) {
    auto text = files::read_text(prune_path(store));
    if (!text) {
        if (!store.run_record())
            for (const std::string &name : files::names_in(store.folder()))
                if (ends_with_partial(name))
                    files::remove_file(store.path(name));
        return;
    }
    nlohmann::json plan = sealed_from(prune_path(store), *text);
    for (const auto &id : plan.at("rename"))
        for (const char *suffix : suffixes) {
            std::string name = id.get<std::string>() + suffix;
            if (files::exists(store.path(name + ".partial")))
                files::rename_file(store.path(name + ".partial"), store.path(name));
        }
    files::sync_path(store.folder());
    for (const auto &id : plan.at("remove"))
        files::remove_file(store.path(id.get<std::string>() + ".json"));
    files::sync_path(store.folder());
    for (const auto &id : plan.at("remove"))
        for (const char *suffix : {".map", ".hashes", ".qcow2"})
            files::remove_file(store.path(id.get<std::string>() + suffix));
    files::sync_path(store.folder());
    files::remove_file(prune_path(store));
    files::sync_path(store.folder());
    store.scan();
}

int prune(ImageTool &images, Events &events, const PruneOptions &options) {
    Store store(options.store, Store::existing);
    files::Fd lock = store.lock_for_writing(), readers = store.lock_readers_out();
    if (!store.head_fault().empty())
        throw Failure(store.head_fault() + ": nothing is pruned before that is solved");
    if (store.run_record())
        throw Failure("a run ended without order: make a backup first, which settles it");
    finish_prune(store);
    store.scan();
    try {
        return Prune(images, events, options, store).run();
    } catch (...) {
        if (!files::exists(prune_path(store)))
            finish_prune(store);
        throw;
    }
}

}  // namespace agent
