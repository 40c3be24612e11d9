// tests/fuzz/readers/reader_images.h: the file systems that the readers' fuzzers begin with
// SPDX-License-Identifier: GPL-2.0-only
//
// A few small ones laid out by hand, of one and of several groups, and those that the folder
// TRAK_FUZZ_IMAGES holds (ext2*, reiserfs*, xfs*, in the order of their names), made by the file
// systems' own tools. The bytes of a disk are shared by all runs: whoever changes them puts them back.
#ifndef TRAK_TESTS_FUZZ_READERS_READER_IMAGES_H
#define TRAK_TESTS_FUZZ_READERS_READER_IMAGES_H

#include <cstdint>
#include <span>
#include <vector>

namespace fuzz {

enum class ReaderImage { kExt2, kReiser, kXfs };

struct Seed {
    std::span<std::uint8_t> disk;
    std::vector<std::span<std::uint8_t>> pieces;  // of metadata, within the disk
};

// Small ones, that cost a run microseconds, and large ones: of several groups, or made by tools.
struct Seeds {
    std::vector<Seed> small;
    std::vector<Seed> large;
};
// Not empty; the same in every run of a process.
const Seeds &seeds_of(ReaderImage kind);

// Integers as they stand on a disk, little- and big-endian.
inline std::uint64_t le(std::span<const std::uint8_t> bytes, std::uint64_t at, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = width; i > 0; --i)
        value = value << 8 | bytes[at + i - 1];
    return value;
}
inline std::uint64_t be(std::span<const std::uint8_t> bytes, std::uint64_t at, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i)
        value = value << 8 | bytes[at + i];
    return value;
}

}  // namespace fuzz

#endif
