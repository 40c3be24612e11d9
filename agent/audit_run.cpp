// agent/audit_run.cpp: the command that compares what no map calls changed with the chain
// SPDX-License-Identifier: GPL-2.0-only
//
// It clears no map. What it leaves when it is killed is a snapshot, and a record that names it; the
// next run of any kind settles that.
#include "agent/audit.h"
#include "agent/base.h"
#include "agent/cow_room.h"
#include "agent/prune.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace agent {
namespace {

constexpr uint64_t default_sample = 4096;

AuditOutcome audit_snapshot(const Context &c, const AuditOptions &o, const Store &store,
                            const FilterNode &filter, const RunRecord &record, const Manifest &base,
                            CowRoom &room) {
    uint32_t chunk_size =
        filter.snaps.empty() ? o.chunk_size : c.driver.snap(filter.snaps.front()).chunk_size;
    uint32_t minor =
        c.driver.make_snap(filter, chunk_size, record.snap_uuid, record.cow_bmp, record.cow_data);
    c.steps.at("snap-made");
    c.driver.start_snap(minor);
    room.begin();
    c.steps.at("frozen");
    // What was written since the base was made, up to the freeze, stands in the map.
    Map changed = c.driver.read_map(filter.id.minor, MapType::incr);
    ChainHashes chain;
    for (const Manifest *manifest : store.chain(base.id))
        chain.add(std::make_unique<HashReader>(store.path(manifest->hashes.file), filter.id.size,
                                               manifest->block_size));
    files::Fd fd = c.driver.open_snap(c.driver.snap(minor));
    AuditJob job = audit_job(base, fd.get(), changed, chain);
    job.sample = o.all ? 0 : o.sample > 0 ? static_cast<uint64_t>(o.sample) : default_sample;
    job.turn = [&](uint64_t done, uint64_t total) {
        check_interrupt();
        room.look(done, total);
        c.events.progress("audit", done, total, false);
    };
    AuditOutcome outcome = audit_blocks(job);
    c.steps.at("audited");
    return outcome;
}

}  // namespace

int make_audit(const Context &c, const AuditOptions &o) {
    Store store(o.store, Store::existing);
    FilterNode filter = c.driver.find(o.disk);
    files::Fd store_lock = store.lock_for_writing(), node_lock = lock_node(filter);
    if (!files::exists(store.run_path()))
        finish_prune(store);
    settle_run(c, store, filter);
    filter = c.driver.filter(filter.id.minor);
    store.scan();
    const Manifest *base = store.base_for(Kind::incr);
    std::string fault = fault_of_base(store, filter, base, Kind::incr);
    if (!fault.empty())
        throw Failure(fmt::format("there is nothing to compare with: {}", fault));
    std::string cow_dir = files::absolute(o.cow_dir.empty() ? store.folder() : o.cow_dir);
    CowRoom room(c.events, cow_dir, filter.id.size, o.cow_reserve);
    RunRecord record;
    record.run = new_uuid();
    record.id = fmt::format("{:06}-audit", store.next_number());
    record.kind = Kind::diff;
    record.node = filter.id;
    name_snapshot(store, cow_dir, record);
    record.begun = now_text();
    files::replace_durably(store.run_path(), run_record_text(record));
    AuditOutcome outcome;
    try {
        c.steps.at("recorded");
        outcome = audit_snapshot(c, o, store, filter, record, *base, room);
    } catch (...) {
        try {
            settle_run(c, store, filter);
        } catch (const Failure &failure) {
            c.events.notice(failure.text + ": the next run sweeps up");
        }
        throw;
    }
    say_audit(c.events, outcome.result, store, *base);
    settle_run(c, store, filter);
    return outcome.result.differing > 0 ? status_audit : status_ok;
}

}  // namespace agent
