// agent/backup.cpp: one backup, from the lock to the durable manifest
// SPDX-License-Identifier: GPL-2.0-only
//
// The order of calls, and why each stands where it does (docs/agent.md tells it at length):
//    1  lock store and node; settle what an earlier run left
//    2  the run's record, durable: from here on a crash is settled by the next start
//    3  the snap node, made but not started: from now on the driver follows each write to its end
//    4  for each map that this kind clears: marker durable; get-and-clear; map durable; marker gone
//    5  the snapshot is started
//    6  the map again, not cleared: what was written between 4 and 5. What is copied is 4 or 6
//    7  copy; close, sync and check the image; sync everything under temporary names
//    8  image, hashes and map get their names; synced; then the manifest, and the folder is synced:
//       the backup is there, and the duty to give the map back ends
//    9  the snapshot goes, then the map, then the record
// A failure before the end of 8 gives the map back, then removes snapshot and files.
#include "agent/backup.h"

#include "agent/audit.h"
#include "agent/base.h"
#include "agent/copy.h"
#include "agent/cow_room.h"
#include "agent/draft.h"
#include "agent/own_snapshot.h"
#include "agent/prune.h"
#include "agent/version.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace agent {
namespace {

using Clock = std::chrono::steady_clock;

class Backup {
  public:
    Backup(const Context &context, const BackupOptions &options)
        : c_(context), o_(options), store_(options.store, Store::create) {}

    int run() {
        filter_ = c_.driver.find(o_.disk);
        files::Fd store_lock = store_.lock_for_writing(), node_lock = lock_node(filter_);
        c_.steps.at("locked");
        if (!files::exists(store_.run_path()))
            finish_prune(store_);
        if (settle_run(c_, store_, filter_))
            filter_ = c_.driver.filter(filter_.id.minor);
        c_.steps.at("recovered");
        store_.scan();
        decide();
        begin();
        try {
            make();
        } catch (...) {
            abandon();
            throw;
        }
        end();
        return m_.audit.differing > 0 ? status_audit : status_ok;
    }

  private:
    void decide() {
        if (!filter_.started)
            throw Failure(fmt::format("node {} is not started: \"trakctl start {}\" first",
                                      filter_.id.minor, filter_.id.minor));
        kind_ = o_.kind;
        base_ = kind_ == Kind::full ? nullptr : store_.base_for(kind_);
        if (kind_ == Kind::full)
            return;
        std::string fault = fault_of_base(store_, filter_, base_, kind_);
        if (fault.empty())
            return;
        if (o_.no_full)
            throw Failure(fmt::format("a full backup is needed: {}", fault));
        c_.events.notice(fmt::format("making a full backup: {}", fault));
        m_.reason = fault;
        kind_ = Kind::full;
        base_ = nullptr;
    }

    void begin() {
        m_.number = store_.next_number();
        m_.id = Store::id_of(m_.number, kind_);
        m_.kind = kind_;
        m_.run = new_uuid();
        m_.store = store_.head().store;
        m_.seed = store_.head().seed;
        m_.tool = tool_name;
        m_.node = filter_.id;
        m_.block_size = std::min<uint32_t>(filter_.id.extent_size, 65536);
        m_.begun = now_text();
        if (base_ != nullptr) {
            m_.parent = base_->id;
            m_.seed = base_->seed;
        }
        std::string cow_dir = files::absolute(o_.cow_dir.empty() ? store_.folder() : o_.cow_dir);
        room_ = std::make_unique<CowRoom>(c_.events, cow_dir, filter_.id.size, o_.cow_reserve);
        record_.run = m_.run;
        record_.id = m_.id;
        record_.kind = kind_;
        record_.node = filter_.id;
        record_.begun = m_.begun;
        name_snapshot(store_, cow_dir, record_);
        files::replace_durably(store_.run_path(), run_record_text(record_));
        c_.events.say("begin",
                      {{"id", m_.id},
                       {"kind", kind_name(kind_)},
                       {"parent", m_.parent},
                       {"node", filter_.id.minor},
                       {"disk", filter_.id.disk},
                       {"size", filter_.id.size},
                       {"extent_size", filter_.id.extent_size},
                       {"reason", m_.reason}},
                      fmt::format("{} of {} ({}), node {}", m_.id, filter_.id.disk,
                                  size_text(filter_.id.size), filter_.id.minor));
        mark_ = Clock::now();
    }

    void make() {
        c_.steps.at("recorded");
        make_snap();
        if (kind_ != Kind::diff) {
            claim_maps(filter_, store_);
            hold_map(MapType::incr);
        }
        if (kind_ == Kind::full)
            hold_map(MapType::diff);
        phase("map");
        start_snap();
        phase("snapshot");
        what_to_copy();
        make_image();
        copy();
        phase("copy");
        audit();
        phase("audit");
        close_image();
        phase("check");
        seal();
        draft_->commit(c_.steps);
    }

    void make_snap() {
        uint32_t chunk_size = o_.chunk_size;
        if (!filter_.snaps.empty())
            chunk_size = c_.driver.snap(filter_.snaps.front()).chunk_size;
        snap_minor_ = c_.driver.make_snap(filter_, chunk_size, record_.snap_uuid, record_.cow_bmp,
                                          record_.cow_data);
        own_ = {record_.snap_uuid, snap_minor_, room_->folder()};
        c_.steps.at("snap-made");
    }

    // Takes a map, so that at every moment the driver has it, or the store, or a marker says that
    // nobody knows.
    void hold_map(MapType type) {
        std::string name = map_type_name(type), path = store_.held_map_path(name);
        auto step = [&](const char *what) { c_.steps.at((name + what).c_str()); };
        files::replace_durably(store_.marker_path(name), m_.run + "\n");
        step("-marked");
        Map map = c_.driver.take_map(filter_.id.minor, type);
        step("-taken");
        try {
            std::vector<uint8_t> bytes = map_file_bytes(map, m_.run);
            files::write_synced(path + ".new", bytes.data(), bytes.size());
            step("-written");
            files::rename_file(path + ".new", path);
            files::sync_path(store_.folder());
        } catch (const Failure &) {
            return_map(c_, store_, filter_, type, map);
            throw;
        }
        step("-held");
        files::remove_file(store_.marker_path(name));
        files::sync_path(store_.folder());
        step("-unmarked");
        if (type == MapType::incr)
            m_.extents_mapped = map.marked();
        if (kind_ == Kind::incr)
            map_ = std::move(map);
    }

    void start_snap() {
        check_interrupt();
        c_.driver.start_snap(snap_minor_);
        m_.frozen = now_text();
        c_.steps.at("frozen");
    }

    void what_to_copy() {
        check_interrupt();
        if (kind_ == Kind::full)
            map_ = full_map();
        else {
            Map after = c_.driver.read_map(filter_.id.minor,
                                           kind_ == Kind::incr ? MapType::incr : MapType::diff);
            m_.extents_after_freeze = after.marked();
            if (kind_ == Kind::incr)
                map_.add(after);
            else {
                m_.extents_mapped = after.marked();
                map_ = std::move(after);
            }
        }
        m_.extents_copied = map_.marked();
        m_.bytes_mapped = map_.marked_bytes();
        c_.steps.at("map-read");
        c_.events.say("map",
                      {{"extents", map_.count()},
                       {"mapped", m_.extents_mapped},
                       {"after_freeze", m_.extents_after_freeze},
                       {"copied", m_.extents_copied},
                       {"bytes", m_.bytes_mapped}},
                      fmt::format("{} of {} extents to copy, {}", m_.extents_copied, map_.count(),
                                  size_text(m_.bytes_mapped)));
    }

    // Extents in which some chunk holds data.
    Map full_map() {
        uint32_t chunk = c_.driver.snap(snap_minor_).chunk_size;
        uint64_t unit = std::max<uint64_t>(chunk, filter_.id.extent_size);
        Map data = c_.driver.data_map(snap_minor_, unit);
        return unit == filter_.id.extent_size ? data : data.refined(filter_.id.extent_size);
    }

    void make_image() {
        check_interrupt();
        draft_ = std::make_unique<Draft>(store_, c_.images, m_);
        draft_->make(base_ != nullptr ? base_->image.file : "");
        if (base_ != nullptr)
            for (const Manifest *manifest : store_.chain(base_->id))
                below_.add(std::make_unique<HashReader>(store_.path(manifest->hashes.file),
                                                        filter_.id.size, m_.block_size));
        c_.steps.at("image-made");
    }

    void copy() {
        snap_fd_ = c_.driver.open_snap(own_.checked(c_.driver));
        CopyJob job;
        job.source = snap_fd_.get();
        job.map = &map_;
        job.block_size = m_.block_size;
        job.seed = m_.seed;
        job.image = &draft_->image();
        job.hashes = &draft_->hashes();
        job.below = base_ != nullptr ? &below_ : nullptr;
        bool begun = false, half = false;
        room_->begin();
        job.turn = [&](uint64_t done) {
            check_interrupt();
            if (!begun && done > 0) {
                begun = true;
                c_.steps.at("copy-begun");
            }
            if (!half && done > 0 && done * 2 >= m_.bytes_mapped) {
                half = true;
                c_.steps.at("copy-half");
            }
            room_->look(done, m_.bytes_mapped);
            c_.events.progress("copy", done, m_.bytes_mapped, false);
        };
        CopyCounts counts = own_.reading(c_.driver, [&] { return copy_extents(job); });
        c_.events.progress("copy", m_.bytes_mapped, m_.bytes_mapped, true);
        m_.bytes_read = counts.read;
        m_.bytes_written = counts.written;
        m_.bytes_zero = counts.zero;
        m_.bytes_unchanged = counts.unchanged;
        m_.extents_unchanged = counts.units_unchanged;
        c_.steps.at("copied");
    }

    void audit() {
        if (kind_ != Kind::incr || o_.audit_sample == 0)
            return;
        AuditJob job = audit_job(m_, snap_fd_.get(), map_, below_);
        job.sample = o_.audit_sample > 0
                         ? static_cast<uint64_t>(o_.audit_sample)
                         : std::clamp<uint64_t>(m_.bytes_mapped / m_.block_size / 25, 16, 4096);
        job.turn = [](uint64_t, uint64_t) { check_interrupt(); };
        AuditOutcome outcome = own_.reading(c_.driver, [&] { return audit_blocks(job); });
        m_.audit = outcome.result;
        m_.bytes_audited = outcome.bytes_read;
        say_audit(c_.events, m_.audit, store_, *base_);
        c_.steps.at("audited");
    }

    void close_image() {
        snap_fd_.reset(-1);
        draft_->close_image();
        c_.steps.at("image-checked");
    }

    void seal() {
        draft_->measure(map_);
        m_.ended = now_text();
        phase("seal");
        draft_->write_manifest();
        c_.steps.at("sealed");
        // The last moment at which all can be taken back.
        check_interrupt();
    }

    // As the next start would do it; where the driver does not answer, that one does.
    void abandon() {
        snap_fd_.reset(-1);
        draft_.reset();
        try {
            settle_run(c_, store_, filter_);
        } catch (const Failure &failure) {
            c_.events.notice(
                fmt::format("{}: the next run gives the map back and sweeps up", failure.text));
        } catch (const Interrupted &) {
        }
    }

    // The backup is there. What can't be cleared away now is left to the next run.
    void end() {
        try {
            settle_run(c_, store_, filter_);
        } catch (const Failure &failure) {
            c_.events.notice(failure.text + ": the next run sweeps up");
        }
        c_.events.say("done",
                      {{"id", m_.id},
                       {"kind", kind_name(kind_)},
                       {"read", m_.bytes_read},
                       {"audited", m_.bytes_audited},
                       {"written", m_.bytes_written},
                       {"zero", m_.bytes_zero},
                       {"unchanged", m_.bytes_unchanged},
                       {"image_size", m_.image.size},
                       {"audit_differing", m_.audit.differing}},
                      fmt::format("{} is there: {} read, {} of data written, image of {}", m_.id,
                                  size_text(m_.bytes_read), size_text(m_.bytes_written),
                                  size_text(m_.image.size)));
    }

    void phase(const char *name) {
        auto now = Clock::now();
        m_.seconds.emplace_back(name, std::chrono::duration<double>(now - mark_).count());
        mark_ = now;
    }

    const Context &c_;
    const BackupOptions &o_;
    Store store_;
    FilterNode filter_;
    Kind kind_ = Kind::full;
    const Manifest *base_ = nullptr;
    Manifest m_;
    RunRecord record_;
    uint32_t snap_minor_ = 0;
    OwnSnapshot own_;
    Map map_;
    std::unique_ptr<Draft> draft_;
    ChainHashes below_;
    files::Fd snap_fd_;
    std::unique_ptr<CowRoom> room_;
    Clock::time_point mark_;
};

}  // namespace

int make_backup(const Context &context, const BackupOptions &options) {
    return Backup(context, options).run();
}

}  // namespace agent
