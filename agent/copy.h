// agent/copy.h: copying marked extents from a snapshot into an image
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/bits.h"
#include "agent/hashes.h"
#include "agent/image.h"

#include <functional>

namespace agent {

struct CopyCounts {
    uint64_t read = 0, written = 0, zero = 0, unchanged = 0;  // bytes
    uint64_t units_unchanged = 0;  // of the map's marked ones: as in `below`; 0 without
};

struct CopyJob {
    int source = -1;           // the snapshot
    const Map *map = nullptr;  // what to copy
    uint32_t block_size = 0;   // of hashes; divides the map's unit
    uint64_t seed = 0;
    ImageIo *image = nullptr;  // may be null: only hashes are wanted
    HashWriter *hashes = nullptr;
    ChainHashes *below = nullptr;  // what the image shows before the copy; null: zeros
    unsigned readers = 4;
    // Between requests, in the caller's thread: bytes done. May throw, which ends the copy.
    std::function<void(uint64_t done)> turn;
    // For each block read, in no order, in the caller's thread; before it is written.
    std::function<void(uint64_t block, const Hash &hash)> seen;
};

// Reads what the map marks, each byte once, in requests of up to a megabyte, several at a time, and
// writes what differs from `below`: memory is bounded by 16 such requests. Throws Failure, with the
// errno of a failed read in `error`.
CopyCounts copy_extents(const CopyJob &job);

}  // namespace agent
