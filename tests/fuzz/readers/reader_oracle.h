// tests/fuzz/readers/reader_oracle.h: what an image says of itself, in the words of its format
// SPDX-License-Identifier: GPL-2.0-only
//
// Written from the formats, apart from the readers, for images that may be damaged in any way.
#ifndef TRAK_TESTS_FUZZ_READERS_READER_ORACLE_H
#define TRAK_TESTS_FUZZ_READERS_READER_ORACLE_H

#include <cstdint>
#include <span>
#include <vector>

#include "tests/fuzz/readers/reader_images.h"

namespace fuzz {

using Disk = std::span<const std::uint8_t>;
using Bits = std::vector<std::uint8_t>;

inline bool is_set(const Bits &bits, std::uint64_t n) {
    return (bits[n / 8] >> (n % 8)) & 1;
}

// Throws std::logic_error where `map`, which has one bit per block of the disk, calls a block free
// that the image has in use; or where the reader took an image that contradicts itself.
void check_map(ReaderImage kind, Disk disk, const Bits &map, std::uint32_t block_size);

// A change that was made to a disk, for putting it back.
struct Undo {
    std::uint64_t at;
    std::uint8_t was;
};
// Makes the counts of free blocks agree again with the bitmaps or trees, as far as these can be
// found: so that damage is seen by more than the reader's first check.
void mend_counts(ReaderImage kind, std::span<std::uint8_t> disk, std::vector<Undo> &undo);

}  // namespace fuzz

#endif
