// tests/scenario/snap_run.h: programs that use a filter and its snapshots at random, checked by the model
// SPDX-License-Identifier: GPL-2.0-only
//
// Knows the control interface and the nodes only; shares no code with the driver.
#ifndef TRAK_TESTS_SCENARIO_SNAP_RUN_H
#define TRAK_TESTS_SCENARIO_SNAP_RUN_H

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/scenario/snap_model.h"
#include "tests/support/snap_world.h"

namespace snap_run {

using namespace snap_model;
using snap_world::Machine;

// What one run is made of; all of it comes from the seed.
struct Plan {
    std::uint64_t sectors = 512;
    std::uint32_t chunk_size = 4096;
    std::uint64_t longest = 64;  // sectors of a request
    unsigned snaps = 2;          // nodes, with minors 1, 2, ...
    unsigned submitters = 2;
    unsigned in_flight = 2;  // of each submitter
    unsigned ops = 40;       // of each task
    bool file_system = false;
    bool keep_one = true;  // the filter is never without a snap node: requests keep their order
    bool faults = false;   // requests, syncs and allocations may fail
    bool full = false;     // the file system of the COW files runs full
    // There is a file system of Ext2's on the disk, so that snaps know which chunks hold no data. Its
    // own structures lie before `base`, where nobody writes.
    std::uint64_t base = 0;
    std::vector<bool> no_data;  // by chunk; empty: all hold data

    std::string text() const {
        return "sectors " + std::to_string(sectors) + " chunk " + std::to_string(chunk_size) +
               " longest " + std::to_string(longest) + " snaps " + std::to_string(snaps) +
               " submitters " + std::to_string(submitters) + " in flight " +
               std::to_string(in_flight) + (file_system ? " fs" : "") +
               (no_data.empty() ? "" : " map") + (keep_one ? "" : " none kept") +
               (faults ? " faults" : "") + (full ? " full" : "");
    }
};

// What the runs of a test did, so that it can say that it tried each kind of thing.
struct Events {
    std::uint64_t requests = 0, odd = 0, smallest = 0, long_ones = 0;
    std::uint64_t creations = 0, starts = 0, stops = 0, postponed = 0, deletions = 0, resumes = 0;
    std::uint64_t maps = 0;         // starts after which the snap knew which chunks hold no data
    std::uint64_t full_groups = 0;  // group copies that took every page there is
    std::uint64_t images = 0;       // checked from end to end
};
inline Events &events() {
    static Events the;
    return the;
}

struct SnapState {
    std::uint32_t minor = 0;
    bool created = false;
    std::uint64_t epoch = 0;       // changes with every start and stop
    std::unique_ptr<Image> image;  // while it runs and serves
};

struct Facts {
    std::uint32_t started, valid, stop_pending;
};

inline std::optional<Facts> facts(std::uint32_t minor) {
    trak_info_arg arg{};
    arg.minor = minor;
    int rc;
    do {
        arg.minor = minor;
        rc = driver_world::command(TRAK_GET_INFO, arg);
    } while (rc != 0 && rc != -EINVAL);  // there was no memory for the command
    if (rc != 0)
        return std::nullopt;
    return Facts{arg.started, arg.snap_valid, arg.stop_pending};
}

class SnapRun {
  public:
    SnapRun(Machine &machine, const Plan &plan)
        : plan_(plan), machine_(machine), model_(plan.sectors, plan.keep_one && !plan.faults),
          snaps_(plan.snaps) {
        for (unsigned i = 0; i < plan.snaps; ++i)
            snaps_[i].minor = i + 1;
    }

    const Plan &plan() const { return plan_; }
    Model &model() { return model_; }
    std::vector<SnapState> &snaps() { return snaps_; }
    unsigned images_checked() const { return images_checked_; }
    unsigned given_up() const { return given_up_; }
    bool failed() const { return ::testing::Test::HasFailure(); }

    // The filter, started, and all snap nodes.
    void build() {
        ASSERT_EQ(driver_world::add_filter(0), 0);
        ASSERT_EQ(driver_world::start(0), 0);
        for (SnapState &snap : snaps_)
            create(snap);
        if (plan_.file_system)
            sim::attach_file_system(driver_world::node_dev(0));
    }

    void create(SnapState &snap) {
        creating_ = true;  // without memory the creation keeps the node table locked
        sim::fail_none();
        const int rc = snap_world::add_snap(static_cast<int>(snap.minor), plan_.chunk_size);
        creating_ = false;
        events().creations += rc == 0;
        snap.created = rc == 0;
        if (!plan_.faults) {
            EXPECT_EQ(rc, 0);
        }
    }

    // ---- tasks ------------------------------------------------------------------------------

    // Writes and reads of the filter, several in flight.
    void submitter() {
        os_bdev *bdev = open(0);
        if (bdev == nullptr)
            return;
        std::vector<Pending> pending;
        for (unsigned i = 0; i < plan_.ops && !failed(); ++i) {
            if (pending.size() == plan_.in_flight)
                finish_one(pending);
            pending.push_back(submit(bdev));
            if (sim::random(8) == 0)
                sim::sleep_ms(static_cast<unsigned>(sim::random(5)));
        }
        while (!pending.empty())
            finish_one(pending);
        sim::close_device(bdev);
    }

    // Reads of snaps that run.
    void reader() {
        for (unsigned i = 0; i < plan_.ops && !failed(); ++i) {
            SnapState &snap = snaps_[sim::random(snaps_.size())];
            if (snap.image != nullptr)
                read_some(snap);
            sim::yield();
        }
    }

    // Starts, stops, deletes.
    void controller() {
        for (unsigned i = 0; i < plan_.ops / 4 && !failed(); ++i) {
            SnapState &snap = snaps_[sim::random(snaps_.size())];
            switch (sim::random(6)) {
            case 0:
                stop(snap);
                break;
            case 1:
                remove(snap);
                break;
            default:
                if (!snap.created)
                    create(snap);
                else
                    start(snap);
            }
            sim::sleep_ms(static_cast<unsigned>(sim::random(20)));
        }
    }

    // Lets things fail for a while, again and again.
    void saboteur() {
        for (unsigned i = 0; i < 4 && !failed(); ++i) {
            sim::sleep_ms(static_cast<unsigned>(sim::random(30)));
            sim::wait_until([this] { return !creating_; });
            if (plan_.full) {
                machine_.storage.set_free_bytes("/cow", sim::random(100000));
            } else {
                const auto kind = static_cast<unsigned>(sim::random(5));
                static constexpr sim::Fault kinds[] = {sim::Fault::kAlloc, sim::Fault::kRead,
                                                       sim::Fault::kWrite, sim::Fault::kFlush,
                                                       sim::Fault::kOpen};
                sim::fail_random(kinds[kind], static_cast<unsigned>(sim::random(100)));
            }
        }
    }

    // Everything at once, to its end.
    void work() {
        std::vector<sim::Process *> tasks;
        for (unsigned i = 0; i < plan_.submitters; ++i)
            tasks.push_back(sim::spawn("submitter", [this] { submitter(); }));
        tasks.push_back(sim::spawn("reader", [this] { reader(); }));
        tasks.push_back(sim::spawn("controller", [this] { controller(); }));
        if (plan_.faults || plan_.full)
            tasks.push_back(sim::spawn("saboteur", [this] { saboteur(); }));
        for (sim::Process *task : tasks)
            sim::join(task);
    }

    // Every image that is there, from end to end, and the disk.
    void check_all() {
        for (SnapState &snap : snaps_) {
            if (snap.image != nullptr)
                check_image(snap);
        }
        check_disk();
    }

    // The module goes and comes back while nobody writes; what ran is resumed, newest first.
    void reload() {
        std::vector<std::uint32_t> order = snap_minors();
        std::vector<std::optional<Facts>> before(plan_.snaps + 1);
        for (SnapState &snap : snaps_)
            before[snap.minor] = facts(snap.minor);
        ASSERT_EQ(trak_cleanup(), 0);
        ASSERT_EQ(trak_init(), 0);
        ASSERT_EQ(driver_world::add_filter(0), 0);
        ASSERT_EQ(driver_world::start(0), 0);
        for (const std::uint32_t minor : order)
            create(snaps_[minor - 1]);
        for (std::size_t i = order.size(); i-- > 0;)
            resume(snaps_[order[i] - 1], *before[order[i]]);
    }

    // Every snap runs; then the files of one of them take no more bytes while all are read and the disk
    // is overwritten.
    void give_up(std::uint64_t seed, const sim::Options &options) {
        const auto work = [&] {
            build();
            for (SnapState &snap : snaps_)
                start(snap);
            // What one preserves before is lost with it.
            if (seed % 2 == 0)
                overwrite(0, 8);
            const auto victim = static_cast<int>(1 + sim::random(snaps_.size()));
            machine_.storage.fail_path(snap_world::data_path(victim), sim::Fault::kWrite, -ENOSPC);
            std::vector<sim::Process *> tasks;
            for (SnapState &snap : snaps_)
                tasks.push_back(sim::spawn("reader", [this, &snap] { read_until_refused(snap); }));
            tasks.push_back(sim::spawn("writer", [this] { overwrite(0, plan_.sectors); }));
            for (sim::Process *task : tasks)
                sim::join(task);
        };
        plan_.full = true;
        driver_world::boot(machine_, work, 1, options);
    }

    void read_until_refused(SnapState &snap) {
        os_bdev *bdev = open(snap.minor);
        bool more = bdev != nullptr;
        for (unsigned i = 0; i < 60 && more && !failed(); ++i)
            more = read_image(snap, snap.epoch, bdev, sim::random(plan_.sectors), 1);
        if (bdev != nullptr)
            sim::close_device(bdev);
    }

    // ---- single steps -----------------------------------------------------------------------

    void start(SnapState &snap) {
        const std::uint64_t from = model_.tick();
        const int rc = driver_world::start(snap.minor);
        const std::uint64_t to = model_.tick();
        if (rc == 0) {
            ++snap.epoch;
            snap.image = std::make_unique<Image>(model_, from, to);
            events().starts++;
            events().maps += snap_world::snap(snap.minor).blkbmp.valid != 0;
            return;
        }
        // Not -EAGAIN: however many submit, there are moments at which none is in the filter's path.
        if (rc == -EALREADY || rc == -EINVAL || plan_.faults || plan_.full)
            return;
        ADD_FAILURE() << "start of snap " << snap.minor << ": " << rc;
    }

    void stop(SnapState &snap) {
        const int rc = driver_world::stop(snap.minor);
        if (rc != 0 && rc != -EBUSY && snap.created && !plan_.faults) {
            ADD_FAILURE() << "stop of snap " << snap.minor << ": " << rc;
        }
        const auto now = facts(snap.minor);
        events().postponed += now && now->stop_pending != 0;
        events().stops += rc == 0 && now && now->started == 0;
        refresh();
    }

    void resume(SnapState &snap, const Facts &before) {
        ++snap.epoch;
        if (before.started == 0)
            return;
        const int rc = snap_world::resume(snap.minor, before.valid, before.stop_pending);
        events().resumes += rc == 0;
        if (rc != 0) {
            snap.image.reset();
            // What was given up is cut to nothing.
            EXPECT_EQ(rc, -EIO);
            EXPECT_TRUE(before.valid == 0) << "snap " << snap.minor;
        }
    }

    // The minors of the filter's snaps, oldest start first.
    std::vector<std::uint32_t> snap_minors() {
        trak_info_arg arg{};
        EXPECT_EQ(driver_world::command(TRAK_GET_INFO, arg), 0);
        return {arg.snap_minors, arg.snap_minors + arg.snaps};
    }

    void remove(SnapState &snap) {
        if (plan_.keep_one && &snap == &snaps_.front())
            return;
        const int rc = driver_world::del(snap.minor);
        if (rc != 0 && rc != -EBUSY && snap.created && !plan_.faults) {
            ADD_FAILURE() << "delete of snap " << snap.minor << ": " << rc;
        }
        events().deletions += rc == 0;
        refresh();
    }

    // Drops the images of snaps that do not serve any more.
    void refresh() {
        for (SnapState &snap : snaps_) {
            const auto now = facts(snap.minor);
            snap.created = now.has_value();
            if (snap.image != nullptr && (!now || now->started == 0 || now->stop_pending != 0)) {
                ++snap.epoch;
                snap.image.reset();
            }
        }
    }

    void read_some(SnapState &snap) {
        os_bdev *bdev = open(snap.minor);
        if (bdev == nullptr)
            return;
        const std::uint64_t epoch = snap.epoch;
        for (unsigned i = 0; i < 3 && !failed(); ++i) {
            const auto [sector, count] = pick_range();
            read_image(snap, epoch, bdev, sector, count);
        }
        sim::close_device(bdev);
    }

    void check_image(SnapState &snap) {
        os_bdev *bdev = open(snap.minor);
        if (bdev == nullptr)
            return;
        bool whole = true;
        for (std::uint64_t s = plan_.base; s < plan_.sectors && whole && !failed();) {
            const std::uint64_t count = std::min(plan_.sectors - s, 1 + sim::random(plan_.longest));
            whole = read_image(snap, snap.epoch, bdev, s, count);
            s += count;
        }
        sim::close_device(bdev);
        if (!whole || failed() || snap.image == nullptr)
            return;
        ++images_checked_;
        events().images++;
        const std::string wrong = snap.image->check_whole();
        if (!wrong.empty()) {
            ADD_FAILURE() << "snap " << snap.minor << ": " << wrong << "\n" << plan_.text();
        }
    }

    void check_disk() {
        const Bytes bytes = machine_.disk.read(0, plan_.sectors * kSector);
        const std::uint64_t now = model_.tick();
        for (std::uint64_t s = plan_.base; s < plan_.sectors; ++s) {
            const std::int64_t what = model_.shown(bytes.data() + s * kSector, s);
            if (plan_.faults && what == kForged)
                continue;  // a failed write leaves anything
            if (!model_.allowed(s, what, now, now)) {
                ADD_FAILURE() << "the disk: " << model_.describe(s, what) << "\n" << plan_.text();
                return;
            }
        }
    }

    // Writes that change every chunk, one after the other.
    void overwrite_all() { overwrite(plan_.base, plan_.sectors); }

    void overwrite(std::uint64_t from, std::uint64_t to) {
        os_bdev *bdev = open(0);
        if (bdev == nullptr)
            return;
        for (std::uint64_t s = from; s < to && !failed();) {
            const std::uint64_t count = std::min(to - s, 1 + sim::random(plan_.longest));
            std::vector<Pending> one{submit_write(bdev, s, count, false)};
            finish_one(one);
            s += count;
        }
        sim::close_device(bdev);
    }

  private:
    struct Pending {
        sim::Request *request;
        std::size_t id;  // of the write; 0: a read
        std::uint64_t sector;
        std::uint64_t given;
    };

    os_bdev *open(std::uint32_t minor) {
        int err = 0;
        const std::uint32_t mode = minor == 0 ? OS_FMODE_READ | OS_FMODE_WRITE : OS_FMODE_READ;
        return sim::open_device(driver_world::node_dev(minor), mode, &err);
    }

    // Long ones are rare; many begin near the start, so that requests meet.
    std::pair<std::uint64_t, std::uint64_t> pick_range() {
        const std::uint64_t longest = sim::random(6) == 0 ? plan_.longest : plan_.longest / 8 + 1;
        const std::uint64_t sectors = plan_.sectors - plan_.base;
        const std::uint64_t count = 1 + sim::random(std::min(longest, sectors));
        const std::uint64_t room = sectors - count + 1;
        return {plan_.base + sim::random(sim::random(2) == 0 ? room : room / 8 + 1), count};
    }

    Pending submit_write(os_bdev *bdev, std::uint64_t sector, std::uint64_t count, bool zeroes) {
        if (plan_.file_system)
            sim::wait_while_frozen(driver_world::node_dev(0));
        const std::size_t id = model_.begin(sector, count, zeroes);
        const std::uint32_t rw = OS_BIO_WRITE | (zeroes ? OS_BIO_ZEROES : 0);
        sim::Request *request = sim::start_request(bdev, rw, sector, model_.bytes(id));
        model_.taken(id);
        return {request, id, sector, 0};
    }

    Pending submit(os_bdev *bdev) {
        const auto [sector, count] = pick_range();
        events().requests++;
        events().odd += sector % 2 == 1;
        events().smallest += count == 1;
        events().long_ones += count > 1024;
        const std::uint64_t what = sim::random(20);
        if (what < 4) {
            const std::uint64_t given = model_.tick();
            return {sim::start_request(bdev, 0, sector, Bytes(count * kSector)), 0, sector, given};
        }
        if (what == 4) {
            const std::uint64_t given = model_.tick();
            return {sim::start_request(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, {}), 0, 0, given};
        }
        return submit_write(bdev, sector, count, what == 5);
    }

    void finish_one(std::vector<Pending> &pending) {
        const Pending one = pending.front();
        pending.erase(pending.begin());
        Bytes data;
        const int rc = sim::wait_request(one.request, &data);
        if (rc != 0 && !plan_.faults) {
            ADD_FAILURE() << "a request at sector " << one.sector << ": " << rc;
        }
        if (one.id != 0) {
            model_.ended(one.id, rc != 0);
            return;
        }
        const std::uint64_t now = model_.tick();
        for (std::size_t i = 0; rc == 0 && i < data.size() / kSector; ++i) {
            const std::int64_t what = model_.shown(data.data() + i * kSector, one.sector + i);
            if (plan_.faults && what == kForged)
                continue;
            if (!model_.allowed(one.sector + i, what, one.given, now)) {
                ADD_FAILURE() << "a read of the filter: " << model_.describe(one.sector + i, what)
                              << "\n"
                              << plan_.text();
                return;
            }
        }
    }

    // False when it could not be read, which must have a reason.
    bool read_image(SnapState &snap, std::uint64_t epoch, os_bdev *bdev, std::uint64_t sector,
                    std::uint64_t count) {
        Bytes bytes(count * kSector);
        const int rc = sim::read_device(bdev, sector, bytes);
        if (snap.image == nullptr || snap.epoch != epoch)
            return false;
        if (rc == 0) {
            const std::string wrong =
                snap.image->check(sector, bytes, plan_.no_data, plan_.chunk_size / kSector);
            if (!wrong.empty()) {
                ADD_FAILURE() << "snap " << snap.minor << ": " << wrong << "\n" << plan_.text();
            }
            return true;
        }
        const auto now = facts(snap.minor);
        const bool invalid = now && now->valid == 0;
        given_up_ += invalid;
        const bool excused = plan_.faults || (plan_.full && invalid);
        if (!excused && !(now && now->stop_pending != 0)) {
            ADD_FAILURE() << "a read of snap " << snap.minor << " at sector " << sector << ": "
                          << rc << "\n"
                          << plan_.text();
        }
        return false;
    }

    Plan plan_;
    Machine &machine_;
    Model model_;
    std::vector<SnapState> snaps_;
    unsigned images_checked_ = 0;
    unsigned given_up_ = 0;
    bool creating_ = false;
};

}  // namespace snap_run

#endif
