// tests/fuzz/control_smoke.cpp: the fuzzer's program on inputs drawn from seeds
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>
#include <random>
#include <vector>

#include "os/sim/seeds.h"
#include "tests/fuzz/control_program.h"

namespace {

TEST(control_program, driver_survives_the_shortest_inputs) {
    fuzz::run_control_program({});
    for (unsigned byte = 0; byte < 256; ++byte) {
        const std::vector<std::uint8_t> input = {0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(byte)};
        fuzz::run_control_program(input);
    }
}

TEST(control_program, driver_survives_arbitrary_inputs) {
    sim::for_each_seed(1000, [](std::uint64_t seed) {
        std::mt19937_64 random(seed);
        std::vector<std::uint8_t> input(7 + random() % 1500);
        for (std::uint8_t &byte : input)
            byte = static_cast<std::uint8_t>(random());
        fuzz::run_control_program(input);
    });
}

}  // namespace
