// tests/fuzz/readers/readers_smoke.cpp: the fuzzers' program on inputs drawn from seeds
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "os/sim/seeds.h"
#include "tests/fuzz/readers/one_task.h"
#include "tests/fuzz/readers/reader_oracle.h"
#include "tests/fuzz/readers/reader_program.h"

// There is no simulated machine here: its place is taken by the kernel of one task.
void sim::set_replay(std::string line) {
    one_task::set_replay(std::move(line));
}

namespace {

// A head and some changes with the values that damage most.
std::vector<std::uint8_t> draw(std::uint64_t seed) {
    static constexpr std::uint8_t kValues[] = {0, 1, 2, 4, 8, 16, 0x7f, 0x80, 0xfe, 0xff};
    std::mt19937_64 random(seed);
    std::vector<std::uint8_t> input(fuzz::kReaderHead + fuzz::kReaderChange * (1 + random() % 4));
    for (std::size_t i = 0; i < input.size(); ++i) {
        const bool value = i >= fuzz::kReaderHead && i % 8 >= 4;
        input[i] = value && random() % 2 == 0 ? kValues[random() % sizeof kValues]
                                              : static_cast<std::uint8_t>(random());
    }
    if (random() % 2 == 0)
        input[1] = 0;  // no failing call
    return input;
}

void try_inputs(fuzz::ReaderImage kind, std::uint64_t count) {
    for (unsigned image = 0; image < 256; ++image) {
        const auto number = static_cast<std::uint8_t>(image);
        EXPECT_TRUE(fuzz::run_reader_program(kind, {&number, 1})) << image;
    }
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
    try_inputs(fuzz::ReaderImage::kExt2, 5000);
}
TEST(readers_program, reiserfs_reader_frees_nothing_in_use_on_damaged_images) {
    try_inputs(fuzz::ReaderImage::kReiser, 5000);
}
TEST(readers_program, xfs_reader_frees_no_more_than_the_headers_say_on_damaged_images) {
    try_inputs(fuzz::ReaderImage::kXfs, 5000);
}

// What all of this rests on: a block that is in use and called free is seen, whichever it is.
TEST(readers_program, every_block_in_use_that_a_map_calls_free_is_found) {
    const std::pair<fuzz::ReaderImage, std::uint32_t> images[] = {{fuzz::ReaderImage::kExt2, 1024},
                                                                  {fuzz::ReaderImage::kReiser, 512},
                                                                  {fuzz::ReaderImage::kXfs, 512}};
    for (const auto &[kind, block_size] : images) {
        const fuzz::Disk disk = fuzz::seeds_of(kind).small[0].disk;
        fuzz::Bits map(disk.size() / block_size / 8, 0xff);
        EXPECT_NO_THROW(fuzz::check_map(kind, disk, map, block_size));
        std::size_t found = 0;
        for (std::size_t block = 0; block < 64; ++block) {
            map[block / 8] ^= static_cast<std::uint8_t>(1 << block % 8);
            try {
                fuzz::check_map(kind, disk, map, block_size);
            } catch (const std::logic_error &) {
                ++found;
            }
            map[block / 8] = 0xff;
        }
        // Used by the images' pattern, the first blocks always.
        EXPECT_GT(found, 15u) << static_cast<int>(kind);
        EXPECT_LE(found, 64u);
    }
}

}  // namespace
