// tests/unit/readers/xfs_world.h: XFS images of free extents, for the tests of their reader
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_UNIT_READERS_XFS_WORLD_H
#define TRAK_TESTS_UNIT_READERS_XFS_WORLD_H

#include "tests/unit/readers/reader_world.h"

namespace xfs_world {

using namespace reader_world;

struct XfsDisk : Machine {
    explicit XfsDisk(const Xfs &fs) : Machine(fs.bytes() + (1 << 20)) { put(*this, fs.pieces()); }
};

// Three AGs, the last one short; some hundred extents in each.
inline Xfs many_extents() {
    Xfs fs(512, 8192, 8192 * 2 + 3000);
    for (std::uint32_t ag = 0; ag < fs.ags; ++ag)
        for (std::uint32_t at = 600 + ag; at + 20 < fs.length(ag); at += 21 + at % 5)
            fs.free[ag].push_back({at, 1 + at % 17});
    return fs;
}

inline void expect_extents(void *context, const Xfs &fs) {
    expect_map(kXfs, context, fs.block_size, std::uint64_t{fs.ags} * fs.ag_blocks + 40,
               [&](std::uint64_t block, std::uint64_t count) { return !fs.is_free(block, count); });
}

}  // namespace xfs_world

#endif
