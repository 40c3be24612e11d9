// os/sim/shelves.h: pieces of memory that are used again from boot to boot
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_SIM_SHELVES_H
#define TRAK_OS_SIM_SHELVES_H

#include <cstddef>
#include <deque>
#include <vector>

#include "os/sim/sanitizer.h"

namespace sim {

// Pieces that nobody has, by size, the oldest given out first. They are poisoned as a whole, so that a
// late access is seen as it is in memory that malloc has back.
class Shelves {
  public:
    // How many bytes are kept at the most; 0, as at first: none.
    void set_limit(std::size_t bytes) { limit_ = bytes; }

    // A piece of exactly this size, which may be touched again, or null.
    void *take(std::size_t size) {
        if (limit_ == 0 || shelf_of(size).pieces.empty())
            return nullptr;
        Shelf &shelf = shelf_of(size);
        void *piece = shelf.pieces.front();
        shelf.pieces.pop_front();
        bytes_ -= size;
        OS_SIM_UNPOISON(piece, size);
        return piece;
    }
    // False: it stays the caller's.
    bool keep(void *piece, std::size_t size) {
        if (bytes_ + size > limit_)
            return false;
        bytes_ += size;
        shelf_of(size).pieces.push_back(piece);
        OS_SIM_POISON(piece, size);
        return true;
    }

  private:
    struct Shelf {
        std::size_t size;
        std::deque<void *> pieces;
    };
    Shelf &shelf_of(std::size_t size) {
        for (Shelf &shelf : shelves_)
            if (shelf.size == size)
                return shelf;
        return shelves_.emplace_back(Shelf{size, {}});
    }

    std::vector<Shelf> shelves_;
    std::size_t limit_ = 0;
    std::size_t bytes_ = 0;
};

inline Shelves &shelves() {
    static auto *const all = new Shelves;  // outlives every boot
    return *all;
}

}  // namespace sim

#endif
