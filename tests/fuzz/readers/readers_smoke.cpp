// tests/fuzz/readers/readers_smoke.cpp: the fuzzers' program on inputs drawn from seeds
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "os/sim/seeds.h"
#include "tests/fuzz/readers/reader_program.h"

namespace {

// Some changes with the values that damage most.
std::vector<std::uint8_t> draw(std::uint64_t seed) {
    static constexpr std::uint8_t kValues[] = {0, 1, 2, 4, 8, 16, 0x7f, 0x80, 0xfe, 0xff};
    std::mt19937_64 random(seed);
    std::vector<std::uint8_t> input(8 * (1 + random() % 4));
    for (std::size_t i = 0; i < input.size(); ++i)
        input[i] = i % 8 >= 4 && random() % 2 == 0 ? kValues[random() % sizeof kValues]
                                                   : static_cast<std::uint8_t>(random());
    return input;
}

void try_inputs(fuzz::ReaderImage kind, std::uint64_t count) {
    EXPECT_TRUE(fuzz::run_reader_program(kind, {}));
    std::uint64_t taken = 0;
    std::uint64_t tried = 0;
    sim::for_each_seed(count, [&](std::uint64_t seed) {
        ++tried;
        taken += fuzz::run_reader_program(kind, draw(seed));
    });
    // Most images are damaged, and yet not all where it shows.
    if (tried >= 100) {
        EXPECT_GT(taken, 0u);
        EXPECT_LT(taken, tried);
    }
}

TEST(readers_program, ext2_reader_frees_nothing_in_use_on_damaged_images) {
    try_inputs(fuzz::ReaderImage::kExt2, 1500);
}
TEST(readers_program, reiserfs_reader_frees_nothing_in_use_on_damaged_images) {
    try_inputs(fuzz::ReaderImage::kReiser, 1500);
}
TEST(readers_program, xfs_reader_frees_no_more_than_the_headers_say_on_damaged_images) {
    try_inputs(fuzz::ReaderImage::kXfs, 1500);
}

}  // namespace
