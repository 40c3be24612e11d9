// tests/fuzz/control_program.h: bytes taken as a program for the driver
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_FUZZ_CONTROL_PROGRAM_H
#define TRAK_TESTS_FUZZ_CONTROL_PROGRAM_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace fuzz {

// Where an input says how it begins: that value modulo kBeginnings is the number of steps, of which up to
// kCheapSteps start no snap.
constexpr std::size_t kBeginningAt = 5;
constexpr std::uint8_t kBeginnings = 9;
constexpr std::uint8_t kCheapSteps = 3;

// Boots a machine, loads the driver, lets up to three processes do at once what the bytes say
// (commands with whole or mangled records, reads and writes of nodes, the status tree, failing calls),
// and unloads. Any bytes are a program. Throws sim::Failure when the machine broke a rule or the
// driver could not be unloaded.
void run_control_program(std::span<const std::uint8_t> bytes);

}  // namespace fuzz

#endif
