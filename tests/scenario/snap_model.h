// tests/scenario/snap_model.h: what a disk and its snapshots may show, worked out without the driver
// SPDX-License-Identifier: GPL-2.0-only
//
// Every write gets a number and stamps each of its sectors with it, so a sector that is read tells which
// write it shows. The model knows when each write was handed in, when it was taken and when it ended,
// by a clock that counts events. From that it says which writes a sector may show:
//   - a read of the disk shows a write that was handed in before the read ended, and that no other
//     write, ended well before the read began, came after;
//   - an image is such a read of the whole disk at one moment of the snapshot's start, and stays: each
//     sector shows the same write for ever. A write is in the image as a whole or not at all.
// "Came after": handed in after the other one ended; where the driver keeps the order of requests that
// overlap (a filter with snaps), after the other one was taken.
#ifndef TRAK_TESTS_SCENARIO_SNAP_MODEL_H
#define TRAK_TESTS_SCENARIO_SNAP_MODEL_H

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "os/sim/sim.h"

namespace snap_model {

using sim::Bytes;

inline constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();
inline constexpr std::uint32_t kSector = 512;
inline constexpr std::int64_t kUnknown = -1;  // not seen yet
inline constexpr std::int64_t kForged = -2;   // no write's sector
inline constexpr std::int64_t kZeroes = -3;   // the empty disk, or one of the writes of zeroes

struct Write {
    std::uint64_t first;
    std::uint64_t last;   // sectors, inclusive
    std::uint64_t given;  // when it was handed in,
    std::uint64_t taken;  // when the submission returned,
    std::uint64_t ended;  // when it ended
    bool zeroes;
    bool failed;  // may have had any effect
};

class Model {
  public:
    Model(std::uint64_t sectors, bool keeps_order) : keeps_order_(keeps_order), touching_(sectors) {
        // Number 0 is the empty disk.
        writes_.push_back({0, sectors - 1, 0, 0, 0, true, false});
        for (auto &list : touching_)
            list.push_back(0);
    }

    std::uint64_t sectors() const { return touching_.size(); }
    std::uint64_t tick() { return ++clock_; }

    // A write about to be handed in: its number.
    std::size_t begin(std::uint64_t first, std::uint64_t count, bool zeroes) {
        const std::size_t id = writes_.size();
        writes_.push_back({first, first + count - 1, tick(), kNever, kNever, zeroes, false});
        for (std::uint64_t s = first; s < first + count; ++s)
            touching_[s].push_back(static_cast<std::uint32_t>(id));
        return id;
    }
    void taken(std::size_t id) { writes_[id].taken = tick(); }
    void ended(std::size_t id, bool failed) {
        writes_[id].ended = tick();
        writes_[id].failed = failed;
    }
    const Write &write(std::size_t id) const { return writes_[id]; }

    // The bytes of a write.
    Bytes bytes(std::size_t id) const {
        const Write &w = writes_[id];
        Bytes out((w.last - w.first + 1) * kSector);
        for (std::uint64_t s = w.first; s <= w.last && !w.zeroes; ++s)
            stamp(out.data() + (s - w.first) * kSector, id, s);
        return out;
    }

    // Which write a sector's bytes show: its number, kZeroes or kForged.
    std::int64_t shown(const std::uint8_t *bytes, std::uint64_t sector) const {
        std::uint64_t id;
        std::memcpy(&id, bytes, sizeof id);
        if (id == 0) {
            for (std::uint32_t i = 0; i < kSector; ++i)
                if (bytes[i] != 0)
                    return kForged;
            return kZeroes;
        }
        if (id >= writes_.size() || writes_[id].zeroes)
            return kForged;
        std::uint8_t expected[kSector];
        stamp(expected, id, sector);
        return std::memcmp(expected, bytes, kSector) == 0 ? static_cast<std::int64_t>(id) : kForged;
    }

    // True when a look at the sector between `from` and `to` may show this.
    bool allowed(std::uint64_t sector, std::int64_t what, std::uint64_t from,
                 std::uint64_t to) const {
        if (what == kForged)
            return false;
        if (what != kZeroes)
            return may_show(sector, static_cast<std::size_t>(what), from, to);
        for (const std::uint32_t id : touching_[sector])
            if (writes_[id].zeroes && may_show(sector, id, from, to))
                return true;
        return false;
    }

    bool came_after(std::size_t later, std::size_t earlier) const {
        const Write &a = writes_[earlier];
        return writes_[later].given > (keeps_order_ ? a.taken : a.ended);
    }
    const std::vector<std::uint32_t> &touching(std::uint64_t sector) const {
        return touching_[sector];
    }

    std::string describe(std::uint64_t sector, std::int64_t what) const {
        std::string text =
            "sector " + std::to_string(sector) + " shows " + name(what) + "; writes:";
        for (const std::uint32_t id : touching_[sector]) {
            const Write &w = writes_[id];
            text += "\n  " + std::to_string(id) + " [" + std::to_string(w.first) + ", " +
                    std::to_string(w.last) + "] given " + time(w.given) + " taken " +
                    time(w.taken) + " ended " + time(w.ended) + (w.failed ? " failed" : "") +
                    (w.zeroes ? " zeroes" : "");
        }
        return text;
    }

  private:
    static std::string time(std::uint64_t t) { return t == kNever ? "never" : std::to_string(t); }
    static std::string name(std::int64_t what) {
        return what == kForged ? "no write" : what == kZeroes ? "zeroes" : std::to_string(what);
    }

    static void stamp(std::uint8_t *to, std::uint64_t id, std::uint64_t sector) {
        for (std::uint32_t i = 0; i < kSector; i += 16) {
            const std::uint64_t salt = (sector << 20) ^ (i * 0x9e3779b97f4a7c15u) ^ id;
            std::memcpy(to + i, &id, 8);
            std::memcpy(to + i + 8, &salt, 8);
        }
    }

    bool may_show(std::uint64_t sector, std::size_t id, std::uint64_t from,
                  std::uint64_t to) const {
        const Write &w = writes_[id];
        if (w.given > to || sector < w.first || sector > w.last)
            return false;
        for (const std::uint32_t other : touching_[sector])
            if (!writes_[other].failed && writes_[other].ended < from && came_after(other, id))
                return false;
        return true;
    }

    bool keeps_order_;
    std::uint64_t clock_ = 0;
    std::vector<Write> writes_;
    std::vector<std::vector<std::uint32_t>> touching_;
};

// One snapshot's image.
class Image {
  public:
    // The snapshot was taken at a moment between the two times.
    Image(const Model &model, std::uint64_t from, std::uint64_t to)
        : model_(&model), from_(from), to_(to), seen_(model.sectors(), kUnknown) {}

    // What is wrong with these bytes of the image, or nothing. Chunks that held no data at that moment
    // (no_data, by number; empty: all held some) may show anything.
    std::string check(std::uint64_t sector, const Bytes &bytes, const std::vector<bool> &no_data,
                      std::uint64_t sectors_per_chunk) {
        for (std::size_t i = 0; i < bytes.size() / kSector; ++i) {
            const std::uint64_t s = sector + i;
            if (!no_data.empty() && no_data[s / sectors_per_chunk])
                continue;
            const std::int64_t what = model_->shown(bytes.data() + i * kSector, s);
            if (seen_[s] == kUnknown) {
                if (!model_->allowed(s, what, from_, to_))
                    return "not of that moment (" + std::to_string(from_) + " to " +
                           std::to_string(to_) + "): " + model_->describe(s, what);
                seen_[s] = what;
            } else if (seen_[s] != what) {
                return "changed from " + std::to_string(seen_[s]) + ": " +
                       model_->describe(s, what);
            }
        }
        return {};
    }

    // What is wrong with the whole image, all of which was seen: a write that is in it with one sector
    // and with another is not.
    std::string check_whole() const {
        for (std::uint64_t s = 0; s < seen_.size(); ++s) {
            if (seen_[s] < 0)
                continue;
            const auto shown = static_cast<std::size_t>(seen_[s]);
            const Write &in = model_->write(shown);
            for (std::uint64_t other = in.first; !in.failed && other <= in.last; ++other) {
                if (seen_[other] < 0 || seen_[other] == seen_[s])
                    continue;
                if (model_->came_after(shown, static_cast<std::size_t>(seen_[other])))
                    return "write " + std::to_string(shown) + " is in at sector " +
                           std::to_string(s) + ", but " + model_->describe(other, seen_[other]);
            }
        }
        return {};
    }

  private:
    const Model *model_;
    std::uint64_t from_;
    std::uint64_t to_;
    std::vector<std::int64_t> seen_;
};

}  // namespace snap_model

#endif
