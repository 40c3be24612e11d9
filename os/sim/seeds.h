// os/sim/seeds.h: one test over many seeds, and how to repeat the one that failed
// SPDX-License-Identifier: GPL-2.0-only
//
// TRAK_SEED=N runs seed N alone, TRAK_SEEDS=N runs the seeds 1 to N instead of the test's own number.
// The first seed that fails ends the loop and prints the line that repeats it.
#ifndef TRAK_OS_SIM_SEEDS_H
#define TRAK_OS_SIM_SEEDS_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "os/sim/sim.h"

namespace sim {

inline std::uint64_t seed_setting(const char *name, std::uint64_t otherwise) {
    const char *text = std::getenv(name);
    return text && *text ? std::strtoull(text, nullptr, 0) : otherwise;
}

inline std::string replay_line_of(std::uint64_t seed) {
    std::ostringstream line;
    line << "TRAK_SEED=" << seed << ' ' << program_invocation_name;
    if (const auto *test = ::testing::UnitTest::GetInstance()->current_test_info())
        line << " --gtest_filter=" << test->test_suite_name() << '.' << test->name();
    return line.str();
}

// fn(seed) for each seed. A Failure, any other exception and a failed expectation end it.
template <typename Fn> void for_each_seed(std::uint64_t default_count, Fn fn) {
    std::uint64_t only = seed_setting("TRAK_SEED", 0);
    std::uint64_t first = only ? only : 1;
    std::uint64_t last = only ? only : seed_setting("TRAK_SEEDS", default_count);
    for (std::uint64_t seed = first; seed <= last; seed++) {
        const std::string replay = replay_line_of(seed);
        set_replay(replay);
        std::string thrown;
        try {
            fn(seed);
        } catch (const std::exception &e) {
            thrown = e.what();
        }
        set_replay("");
        if (thrown.empty() && !::testing::Test::HasFailure())
            continue;
        ADD_FAILURE() << (thrown.empty() ? "seed " + std::to_string(seed) + " failed" : thrown)
                      << "\nreplay: " << replay;
        return;
    }
}

}  // namespace sim

#endif
