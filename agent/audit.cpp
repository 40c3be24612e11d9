// agent/audit.cpp: reading what no map calls changed, and comparing it with the chain
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/audit.h"

#include "agent/checksum.h"
#include "agent/copy.h"
#include "agent/restore.h"

#include <random>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

namespace agent {
namespace {

constexpr size_t named_extents = 64;

// The blocks to be read: a map in units of blocks. 0 of a sample: all.
Map choose(const AuditJob &job) {
    Map blocks(job.disk_size, job.block_size);
    uint64_t per_extent = job.extent_size / job.block_size;
    auto wanted = [&](uint64_t block) {
        return !job.changed->get(block / per_extent) && job.chain->get(block) != no_hash;
    };
    if (job.sample == 0 || job.sample >= blocks.count()) {
        for (uint64_t block = 0; block < blocks.count(); block++)
            if (wanted(block))
                blocks.set(block);
        return blocks;
    }
    // As many draws as it may take on a disk that is mostly free, and no more.
    std::mt19937_64 dice(std::random_device{}());
    std::uniform_int_distribution<uint64_t> any(0, blocks.count() - 1);
    uint64_t chosen = 0;
    for (uint64_t tries = job.sample * 16; tries > 0 && chosen < job.sample; tries--) {
        uint64_t block = any(dice);
        if (blocks.get(block) || !wanted(block))
            continue;
        blocks.set(block);
        chosen++;
    }
    return blocks;
}

std::vector<std::string> damaged_hash_files(const Store &store, const std::string &id) {
    std::vector<std::string> found;
    for (const Manifest *manifest : store.chain(id)) {
        std::string path = store.path(manifest->hashes.file);
        try {
            if (checksum_file(path, check_interrupt) != manifest->hashes.checksum)
                found.push_back(path);
        } catch (const Failure &) {
            found.push_back(path);
        }
    }
    return found;
}

}  // namespace

AuditOutcome audit_blocks(const AuditJob &job) {
    AuditOutcome outcome;
    Map blocks = choose(job);
    uint64_t per_extent = job.extent_size / job.block_size, total = blocks.marked_bytes();
    outcome.blocks_skipped = blocks.count() - blocks.marked();
    CopyJob copy;
    copy.source = job.source;
    copy.map = &blocks;
    copy.block_size = job.block_size;
    copy.seed = job.seed;
    copy.turn = [&](uint64_t done) {
        if (job.turn)
            job.turn(done, total);
    };
    copy.seen = [&](uint64_t block, const Hash &hash) {
        outcome.result.blocks++;
        if (hash == job.chain->get(block))
            return;
        outcome.result.differing++;
        auto &extents = outcome.result.extents;
        uint64_t extent = block / per_extent;
        if (extents.size() < named_extents &&
            std::find(extents.begin(), extents.end(), extent) == extents.end())
            extents.push_back(extent);
    };
    outcome.bytes_read = copy_extents(copy).read;
    std::sort(outcome.result.extents.begin(), outcome.result.extents.end());
    return outcome;
}

AuditJob audit_job(const Manifest &like, int source, const Map &changed, ChainHashes &chain) {
    AuditJob job;
    job.source = source;
    job.disk_size = like.node.size;
    job.block_size = like.block_size;
    job.extent_size = like.node.extent_size;
    job.seed = like.seed;
    job.changed = &changed;
    job.chain = &chain;
    return job;
}

void say_audit(Events &events, const AuditResult &result, const Store &store,
               const Manifest &base) {
    std::vector<std::string> damaged;
    if (result.differing > 0)
        damaged = damaged_hash_files(store, base.id);
    nlohmann::json fields = {{"blocks", result.blocks},
                             {"differing", result.differing},
                             {"extents", result.extents},
                             {"damaged", damaged},
                             {"chain", base.id}};
    if (result.differing == 0) {
        events.say("audit", fields,
                   fmt::format("audit: {} unchanged blocks are as in {}", result.blocks, base.id));
        return;
    }
    events.say("audit", fields, "");
    std::string what =
        fmt::format("audit: {} of {} blocks differ from {} although no map calls them changed "
                    "(extents {}{}): ",
                    result.differing, result.blocks, base.id, extent_names(result.extents),
                    result.extents.size() == named_extents ? " and more" : "");
    if (damaged.empty())
        events.error(what + "something wrote past the filter; make a full backup");
    else
        events.error(fmt::format("{}{} is damaged, and may be what differs; make a full backup",
                                 what, fmt::join(damaged, " and ")));
}

}  // namespace agent
