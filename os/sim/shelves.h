// os/sim/shelves.h: pieces of memory that are used again from boot to boot
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_SIM_SHELVES_H
#define TRAK_OS_SIM_SHELVES_H

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "os/sim/sanitizer.h"

namespace sim {

// As memset. The sanitizer need not look through what was made accessible a moment ago.
inline void fill(void *p, int value, std::size_t size) {
    if (size < 1024) {
        std::memset(p, value, size);
        return;
    }
    __asm__ volatile("rep stosb" : "+D"(p), "+c"(size) : "a"(value) : "memory");
}

// Pieces that nobody has, by class of size, the oldest given out first. They are poisoned as a whole, so
// that a late access is seen as it is in memory that malloc has back. Small ones rest until a number of
// their class has come in behind them.
class Shelves {
  public:
    // How many bytes are kept at the most; 0, as at first: none.
    void set_limit(std::size_t bytes) { limit_ = OS_SIM_ASAN ? bytes : 0; }
    bool in_use() const { return limit_ != 0; }

    // The size of the pieces that serve this one.
    static std::size_t room_for(std::size_t size) {
        return size > kSmall ? size : (size + kStep - 1) / kStep * kStep;
    }
    // A piece of room_for(size), of which what lies from `closed` to `size` may be touched again, or null.
    void *take(std::size_t size, std::size_t closed) {
        Shelf &shelf = shelf_of(size);
        if (shelf.pieces.size() <= (size > kSmall ? 0 : kResting))
            return nullptr;
        void *piece = shelf.pieces.front();
        shelf.pieces.pop_front();
        bytes_ -= room_for(size);
        OS_SIM_UNPOISON(static_cast<char *>(piece) + closed, size - closed);
        return piece;
    }
    // A new piece for `size` bytes, from a shelf or from malloc. Where shelves are in use, the first `closed`
    // bytes and what lies behind the last one can't be touched. Null where there is no memory.
    void *room(std::size_t size, std::size_t closed) {
        if (!in_use())
            return std::malloc(size);
        if (void *piece = take(size, closed))
            return piece;
        void *piece = std::malloc(room_for(size));
        if (piece) {
            OS_SIM_POISON(piece, closed);
            OS_SIM_POISON(static_cast<char *>(piece) + size, room_for(size) - size);
        }
        return piece;
    }
    // False: it stays the caller's.
    bool keep(void *piece, std::size_t size) {
        const std::size_t room = room_for(size);
        if (bytes_ + room > limit_)
            return false;
        bytes_ += room;
        shelf_of(size).pieces.push_back(piece);
        OS_SIM_POISON(piece, size);
        return true;
    }

  private:
    static constexpr std::size_t kStep = 64;
    static constexpr std::size_t kSmall = 4096;
    static constexpr std::size_t kResting = 64;
    struct Shelf {
        std::size_t size;
        std::deque<void *> pieces;
    };
    Shelf &shelf_of(std::size_t size) {
        if (size <= kSmall)
            return small_[(size + kStep - 1) / kStep];
        for (Shelf &shelf : large_)
            if (shelf.size == size)
                return shelf;
        return large_.emplace_back(Shelf{size, {}});
    }

    std::array<Shelf, kSmall / kStep + 1> small_;
    std::vector<Shelf> large_;
    std::size_t limit_ = 0;
    std::size_t bytes_ = 0;
};

inline Shelves &shelves() {
    static auto *const all = new Shelves;  // outlives every boot
    return *all;
}

}  // namespace sim

#endif
