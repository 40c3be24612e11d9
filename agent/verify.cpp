// agent/verify.cpp: every file of a store, compared with what it was
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/verify.h"

#include "agent/checksum.h"
#include "agent/restore.h"
#include "agent/store.h"

#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace agent {
namespace {

class Verify {
  public:
    Verify(ImageTool &images, Events &events, const VerifyOptions &options)
        : images_(images), events_(events), o_(options), store_(options.store, Store::existing),
          lock_(store_.lock_for_reading()) {}

    int run() {
        store_.scan();
        if (!store_.head_fault().empty())
            fault("store.json", store_.head_fault());
        for (const DamagedEntry &entry : store_.damaged())
            fault(entry.id + ".json", entry.why);
        if (files::exists(store_.path("prune.json")))
            fault("prune.json",
                  "a prune ended without order: the next backup or prune finishes it");
        find_strangers();
        for (const Manifest &manifest : store_.backups()) {
            total_ += manifest.image.size + manifest.hashes.size + manifest.map.size;
        }
        for (const Manifest &manifest : store_.backups())
            check_files(manifest);
        events_.progress("verify", total_, total_, true);
        for (const Manifest &manifest : store_.backups())
            check_chain(manifest);
        if (!o_.quick)
            read_points();
        events_.say("verified",
                    {{"backups", store_.backups().size()}, {"bytes", done_}, {"faults", faults_}},
                    faults_ == 0 ? fmt::format("{} backups are as they were made ({} read)",
                                               store_.backups().size(), size_text(done_))
                                 : fmt::format("{} faults", faults_));
        return faults_ == 0 ? status_ok : status_failed;
    }

  private:
    void fault(const std::string &file, const std::string &why) {
        faults_++;
        events_.say("fault", {{"file", file}, {"why", why}},
                    fmt::format("FAULT {}: {}", file, why));
    }

    // Files that belong to no backup: their manifest was lost.
    void find_strangers() {
        std::set<std::string> known;
        for (const Manifest &m : store_.backups())
            known.insert({m.image.file, m.hashes.file, m.map.file});
        for (const DamagedEntry &entry : store_.damaged())
            known.insert({entry.id + ".qcow2", entry.id + ".hashes", entry.id + ".map"});
        // What a run that is under way is making is no stranger.
        std::string under_way;
        try {
            if (auto record = store_.run_record())
                under_way = record->id;
        } catch (const Failure &failure) {
            fault("run.json", failure.text);
        }
        for (const std::string &name : files::names_in(store_.folder())) {
            size_t dot = name.rfind('.');
            std::string end = dot == std::string::npos ? "" : name.substr(dot);
            if ((end == ".qcow2" || end == ".hashes" || end == ".map") && known.count(name) == 0 &&
                name.rfind("run.", 0) != 0 && name.substr(0, dot) != under_way)
                fault(name, fmt::format("{} has no manifest: {}.json is missing", store_.path(name),
                                        name.substr(0, dot)));
        }
    }

    void check_files(const Manifest &manifest) {
        for (const FileEntry *entry : {&manifest.image, &manifest.hashes, &manifest.map}) {
            check_interrupt();
            std::string path = store_.path(entry->file);
            try {
                if (!files::exists(path))
                    throw Failure(path + " is missing");
                uint64_t size = files::size_of(path);
                if (size != entry->size)
                    throw Failure(
                        fmt::format("{} has {} bytes, and had {}", path, size, entry->size));
                if (checksum_file(path, check_interrupt) != entry->checksum)
                    throw Failure(fmt::format("{} is damaged: its checksum is wrong", path));
                if (entry == &manifest.image)
                    images_.check(path);
            } catch (const Failure &failure) {
                bad_.insert(manifest.id);
                fault(entry->file, failure.text);
            }
            done_ += entry->size;
            events_.progress("verify", done_, total_, false);
        }
    }

    // Whether the backup can be restored, as far as the files tell.
    void check_chain(const Manifest &manifest) {
        std::string why;
        try {
            for (const Manifest *part : store_.chain(manifest.id))
                if (bad_.count(part->id) > 0)
                    why = fmt::format("{} is damaged", part->id);
        } catch (const Failure &failure) {
            why = failure.text;
        }
        if (why.empty())
            return;
        lost_.insert(manifest.id);
        events_.say("lost", {{"id", manifest.id}, {"why", why}},
                    fmt::format("LOST  {}: {}", manifest.id, why));
    }

    void read_points() {
        std::set<std::string> parents;
        for (const Manifest &manifest : store_.backups())
            parents.insert(manifest.parent);
        for (const Manifest &manifest : store_.backups()) {
            if (parents.count(manifest.id) > 0 || lost_.count(manifest.id) > 0)
                continue;
            PointJob job;
            job.images = &images_;
            job.store = &store_;
            job.point = &manifest;
            job.turn = [&](uint64_t done, uint64_t total) {
                check_interrupt();
                events_.progress("read", done, total, false);
            };
            try {
                PointOutcome outcome = read_point(job);
                if (outcome.blocks_wrong > 0)
                    fault(manifest.image.file,
                          fmt::format("{} blocks are not what was backed up (extents {})",
                                      outcome.blocks_wrong, extent_names(outcome.extents)));
            } catch (const Failure &failure) {
                fault(manifest.image.file, failure.text);
            }
        }
    }

    ImageTool &images_;
    Events &events_;
    const VerifyOptions &o_;
    Store store_;
    files::Fd lock_;
    std::set<std::string> bad_, lost_;
    uint64_t done_ = 0, total_ = 0, faults_ = 0;
};

}  // namespace

int verify(ImageTool &images, Events &events, const VerifyOptions &options) {
    return Verify(images, events, options).run();
}

}  // namespace agent
