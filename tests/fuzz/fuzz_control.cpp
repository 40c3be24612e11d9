// tests/fuzz/fuzz_control.cpp: libFuzzer's way into the driver's commands
// SPDX-License-Identifier: GPL-2.0-only
//
// A boot costs microseconds; what the programs make of it may cost milliseconds: a filter has a table of
// 256 KiB, a snap that is started 4 MiB of pages. Hence memory is kept from run to run, few inputs begin
// with started snaps, and no sanitizer looks at the maps and strings of the simulated kernel (quick_new.cpp,
// os/sim/CMakeLists.txt) or at the making of the tables (spared.txt).
#include <cstdio>
#include <cstdlib>
#include <random>

#include "os/sim/sim.h"
#include "tests/fuzz/control_program.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    try {
        fuzz::run_control_program({data, size});
    } catch (const sim::Failure &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        std::abort();
    }
    return 0;
}

// NOLINTBEGIN(readability-identifier-naming): the names are libFuzzer's and the sanitizer's
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t *data, std::size_t size, std::size_t most);

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sim::keep_memory(std::size_t{64} << 20);
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t most, unsigned seed) {
    std::minstd_rand random(seed);
    size = LLVMFuzzerMutate(data, size, most);
    if (size <= fuzz::kBeginningAt)
        return size;
    std::uint8_t &beginning = data[fuzz::kBeginningAt];
    const std::uint8_t steps = beginning % fuzz::kBeginnings;
    if (steps > fuzz::kCheapSteps && random() % 32 != 0)
        beginning =
            static_cast<std::uint8_t>(beginning - steps + random() % 2 * (1 + random() % 3));
    return size;
}

// Freed memory stays poisoned for as long as a run may use it; the simulated kernel finds leaks. Who wants
// to see where memory was allocated repeats the input with ASAN_OPTIONS=malloc_context_size=30.
extern "C" const char *__asan_default_options() {
    return "quarantine_size_mb=1:thread_local_quarantine_size_kb=64:malloc_context_size=0:"
           "allocator_release_to_os_interval_ms=-1:max_malloc_fill_size=0:detect_leaks=0";
}
// NOLINTEND(readability-identifier-naming)
