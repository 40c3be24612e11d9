// tests/scenario/track_model.h: which extents a change map must hold, told from what programs did
// SPDX-License-Identifier: GPL-2.0-only
//
// The model knows no bitmap. It writes down events with the order in which they began and ended;
// an extent that a write touched must be in some map that was taken (and cleared) by a command
// which ended after the write began, or in the node's map now. A command that throws marks away
// (clear, set to a given map, load) excuses the writes that began before it ended.
#ifndef TRAK_TESTS_SCENARIO_TRACK_MODEL_H
#define TRAK_TESTS_SCENARIO_TRACK_MODEL_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/scenario/track_client.h"

namespace track {

class Model {
  public:
    // A moment; later ones are greater.
    std::uint64_t tick() { return ++now_; }

    // A write of bytes [offset, offset + size) that began at `began`.
    void wrote(std::uint64_t began, std::uint64_t offset, std::uint64_t size,
               std::uint32_t extent) {
        for (std::uint64_t e = offset / extent; e * extent < offset + size; ++e)
            writes_.push_back({e, began});
    }
    // A command on a type's map that ended now and gave `taken` to its caller.
    void took(std::uint32_t type, Extents taken) {
        takes_[type].push_back({tick(), std::move(taken), false});
    }
    // A command on a type's map that ended now and may have thrown any mark away.
    void discarded(std::uint32_t type) { takes_[type].push_back({tick(), {}, true}); }

    // Extents of writes that neither `now` nor a map taken since holds.
    Extents missed(std::uint32_t type, const Extents &now) const {
        Extents lost;
        for (const Write &w : writes_)
            if (now.count(w.extent) == 0 && !excused(type, w))
                lost.insert(w.extent);
        return lost;
    }
    // Every extent that a write since the start may have touched.
    Extents touched() const {
        Extents all;
        for (const Write &w : writes_)
            all.insert(w.extent);
        return all;
    }

  private:
    struct Write {
        std::uint64_t extent;
        std::uint64_t began;
    };
    struct Take {
        std::uint64_t ended;
        Extents map;
        bool discards;
    };

    bool excused(std::uint32_t type, const Write &w) const {
        for (const Take &t : takes_[type])
            if (t.ended > w.began && (t.discards || t.map.count(w.extent) != 0))
                return true;
        return false;
    }

    std::uint64_t now_ = 0;
    std::vector<Write> writes_;
    std::vector<Take> takes_[2];
};

inline std::string show(const Extents &extents) {
    std::string text = "{";
    for (std::uint64_t e : extents)
        text += " " + std::to_string(e);
    return text + " }";
}

}  // namespace track

#endif
