// os/sim/rng.h: where every decision of a run comes from
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_SIM_RNG_H
#define TRAK_OS_SIM_RNG_H

#include <cstdint>

namespace sim {

// SplitMix64: one addition and a mix, good from any seed.
class Rng {
  public:
    explicit Rng(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        state_ += 0x9e3779b97f4a7c15u;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
        return z ^ (z >> 31);
    }
    // Below n, which is not 0.
    std::uint64_t below(std::uint64_t n) {
        return static_cast<std::uint64_t>((static_cast<unsigned __int128>(next()) * n) >> 64);
    }
    bool one_in(std::uint64_t n) { return below(n) == 0; }

  private:
    std::uint64_t state_;
};

}  // namespace sim

#endif
