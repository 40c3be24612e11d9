// driver/fsreaders/chunk_walk.h: from blocks in use to chunks that hold data
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_FSREADERS_CHUNK_WALK_H
#define TRAK_FSREADERS_CHUNK_WALK_H

#include <cstdint>

#include "driver/utils/bits.h"

// A walk over the blocks of a file system in rising order, that sets the bit of a chunk at its first
// block in use and then skips the chunk's other blocks.
struct trak_chunk_walk {
    std::uint8_t *out;    // one bit per chunk, cleared before
    std::int64_t chunk;   // output bit of the chunk that the walk is in
    std::int64_t count;   // output bits
    std::uint64_t ratio;  // blocks per chunk
    std::uint64_t left;   // blocks of the chunk that were not looked at
};

inline void trak_chunk_walk_next(trak_chunk_walk *walk) {
    ++walk->chunk;
    walk->left = walk->ratio;
}

// Walks one bitmap block of `bits` bits from bit *at on, whose bit 0 is file-system block `base`, up to
// block `end`. True: the bitmap is done and *at is where to go on, counted from its bit 0 (a skip may
// lead beyond it). False: nothing is left to do.
inline bool trak_walk_bitmap(trak_chunk_walk *walk, const std::uint8_t *bitmap, std::uint64_t bits,
                             std::uint64_t base, std::uint64_t end, std::uint64_t *at) {
    while (*at < bits) {
        if (walk->chunk >= walk->count || base + *at >= end)
            return false;
        if (trak_test_bit(bitmap, *at)) {
            (void)trak_test_and_set_bit(walk->out, static_cast<std::uint64_t>(walk->chunk));
            *at += walk->left;
            trak_chunk_walk_next(walk);
        } else {
            // Most of a large disk is free: eight blocks at a time where they belong to one chunk.
            const bool eight = *at % 8 == 0 && bits - *at >= 8 && walk->left >= 8 &&
                               end - base - *at >= 8 && bitmap[*at / 8] == 0;
            *at += eight ? 8 : 1;
            walk->left -= eight ? 8 : 1;
            if (walk->left == 0)
                trak_chunk_walk_next(walk);
        }
    }
    return walk->chunk < walk->count;
}

// True for what every reader takes as a chunk size: a power of two of at least 2.
inline bool trak_chunk_size_is_valid(std::uint32_t chunk_size) {
    return chunk_size >= 2 && trak_is_power_of_two(chunk_size);
}

#endif
