// tests/fuzz/readers/one_task.h: a kernel of one task that never sleeps, as much as readers need
// SPDX-License-Identifier: GPL-2.0-only
//
// Defines the calls of the seam that reach memory, one disk and the log, linked in place of a whole
// platform: no scheduler, no files, every read is done when it is submitted. What the simulated kernel
// would report of interleavings is not looked for here; what a reader does with memory and with the
// disk is: each allocation is one of malloc's, so that AddressSanitizer sees its bounds, and the
// program ends where a run allocates or reads without bound, waits for nothing, or leaves memory
// behind.
#ifndef TRAK_TESTS_FUZZ_READERS_ONE_TASK_H
#define TRAK_TESTS_FUZZ_READERS_ONE_TASK_H

#include <cstdint>
#include <span>
#include <string>

#include "os/bdev.h"

namespace one_task {

// What fails, if anything: the nth call of its kind, counted from 1.
struct Faults {
    std::uint32_t allocation = 0;
    std::uint32_t read = 0;
};

// Bounds of one run; the program ends where it exceeds them.
constexpr std::uint64_t kMostReads = 200'000;
constexpr std::uint64_t kMostMemoryBesidesDisk = 1 << 20;  // twice the disk's size may come on top

// A run over a disk with these bytes, which stay the caller's. The device is good until end().
os_bdev *begin(std::span<const std::uint8_t> disk, const Faults &faults);
// Ends the program where memory is left.
void end();
// What is printed, if anything, before the program is ended: how to repeat the run.
void set_replay(std::string line);

}  // namespace one_task

#endif
