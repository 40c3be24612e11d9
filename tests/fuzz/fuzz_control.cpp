// tests/fuzz/fuzz_control.cpp: libFuzzer's way into the driver's commands
// SPDX-License-Identifier: GPL-2.0-only
#include <cstdio>
#include <cstdlib>

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
