// tests/fuzz/readers/reader_program.h: a reader on an image whose metadata arbitrary bytes change
// SPDX-License-Identifier: GPL-2.0-only
//
// The input is a list of changes of 8 bytes each: which piece of metadata (1), where in it (2), how (1),
// a value (4); what is short of 8 is 0. The reader may refuse the image, or must call no block free
// that the image, as it is after the changes, says to be in use. Throws std::logic_error where it
// does, sim::Failure where a rule of the machine is broken.
#ifndef TRAK_TESTS_FUZZ_READERS_READER_PROGRAM_H
#define TRAK_TESTS_FUZZ_READERS_READER_PROGRAM_H

#include <cstdint>
#include <span>

namespace fuzz {

enum class ReaderImage { kExt2, kReiser, kXfs };

// True when the reader took the image and read all of it.
bool run_reader_program(ReaderImage kind, std::span<const std::uint8_t> input);
// For libFuzzer: ends the process where the program throws.
int run_reader_input(ReaderImage kind, const std::uint8_t *data, std::size_t size);

}  // namespace fuzz

#endif
