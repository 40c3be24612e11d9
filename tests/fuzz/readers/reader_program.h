// tests/fuzz/readers/reader_program.h: a reader on an image whose metadata arbitrary bytes change
// SPDX-License-Identifier: GPL-2.0-only
//
// The input is a head of 8 bytes and a list of changes of 8 bytes each; what is short of 8 is 0.
//
//     head    0     which of the images: small ones below 248, large ones from there on
//             1     0: nothing fails, else which call does: reads from 128 on, or allocations
//             2     bit 0: the counts of free blocks are mended after the changes; bits 1 to 3 all
//                   set: the log is at its most detailed
//             3     the larger chunks: 2 to the power of this, modulo 15, blocks
//             4-5   where a read of a portion begins
//             6-7   how many chunks it takes
//     change  0     which piece of metadata
//             1-2   where in it: within the first 128 bytes, where most fields lie, or anywhere
//             3     bits 0-1: 1, 2, 4 or 8 bytes; bit 5: the value's bytes in turn; bit 6: add to what
//                   is there; bit 7: anywhere
//             4-7   the value
//
// The reader may refuse the image, or must call no block free that the image, as it is after the changes,
// says to be in use. Larger chunks say no less than their blocks, a portion what the whole says. Throws
// std::logic_error where one does not; the process ends where a reader leaves its bounds.
#ifndef TRAK_TESTS_FUZZ_READERS_READER_PROGRAM_H
#define TRAK_TESTS_FUZZ_READERS_READER_PROGRAM_H

#include <cstdint>
#include <span>

#include "tests/fuzz/readers/reader_images.h"

namespace fuzz {

constexpr std::size_t kReaderHead = 8;
constexpr std::size_t kReaderChange = 8;
constexpr std::uint8_t kFirstLarge = 248;
constexpr std::size_t kMostReaderChanges = 16;  // what follows is not looked at

// True when the reader took the image and read all of it.
bool run_reader_program(ReaderImage kind, std::span<const std::uint8_t> input);
// For libFuzzer: ends the process where the program throws.
int run_reader_input(ReaderImage kind, const std::uint8_t *data, std::size_t size);

}  // namespace fuzz

#endif
