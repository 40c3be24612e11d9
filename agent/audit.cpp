// agent/audit.cpp: reading what no map calls changed, and comparing it with the chain
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/audit.h"

#include "agent/copy.h"

#include <random>

#include <fmt/format.h>
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

void say_audit(Events &events, const AuditResult &result, const std::string &chain) {
    nlohmann::json fields = {{"blocks", result.blocks},
                             {"differing", result.differing},
                             {"extents", result.extents},
                             {"chain", chain}};
    if (result.differing == 0) {
        events.say("audit", fields,
                   fmt::format("audit: {} unchanged blocks are as in {}", result.blocks, chain));
        return;
    }
    events.say("audit", fields, "");
    std::string names;
    for (uint64_t extent : result.extents)
        names += fmt::format("{}{}", names.empty() ? "" : ", ", extent);
    events.error(fmt::format("audit: {} of {} blocks differ from {} although no map calls them "
                             "changed (extents {}{}): something wrote past the filter; make a full "
                             "backup",
                             result.differing, result.blocks, chain, names,
                             result.extents.size() == named_extents ? " and more" : ""));
}

}  // namespace agent
