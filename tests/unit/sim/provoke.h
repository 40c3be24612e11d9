// tests/unit/sim/provoke.h: runs a body that breaks a rule and tells what the simulator said
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_UNIT_SIM_PROVOKE_H
#define TRAK_TESTS_UNIT_SIM_PROVOKE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "os/sim/seeds.h"
#include "os/sim/sim.h"

namespace sim_tests {

inline constexpr std::uint32_t kBoth = OS_FMODE_READ | OS_FMODE_WRITE;
inline constexpr os_dev_t kDisk = (8u << 20) | 0;

inline sim::Options options_of(std::uint64_t seed) {
    sim::Options options;
    options.seed = seed;
    return options;
}

// A machine with one disk of 1 MiB and a folder /data.
struct Machine {
    sim::Storage storage;
    sim::Disk &disk;

    Machine() : disk(storage.add_disk("sda", kDisk, 1 << 20, 512)) { storage.mkdir("/data"); }
    void run(const sim::Options &options, const std::function<void()> &body) {
        sim::World(storage, options).run(body);
    }
    // True when the power was cut.
    bool run_until_cut(std::uint64_t seed, const std::function<void()> &body) {
        try {
            run(options_of(seed), body);
        } catch (const sim::PowerCut &) {
            return true;
        }
        return false;
    }
};

// For results that a rule-breaker has no use for.
template <typename T> void ignore(const T &) {}

// The text of the Failure that the body ended with; "" when it ended without one.
inline std::string failure_of(const sim::Options &options, const std::function<void()> &body) {
    Machine machine;
    try {
        machine.run(options, body);
    } catch (const sim::Failure &failure) {
        return failure.what();
    }
    return "";
}

inline std::string failure_of(const std::function<void()> &body) {
    return failure_of(sim::Options{}, body);
}

// The first failure on any of these seeds: for what only some interleavings bring out.
inline std::string failure_on_some_seed(std::uint64_t seeds, const std::function<void()> &body) {
    for (std::uint64_t seed = 1; seed <= seeds; seed++) {
        std::string text = failure_of(options_of(seed), body);
        if (!text.empty())
            return text;
    }
    return "";
}

#define EXPECT_SAYS(text, part)                                                                    \
    do {                                                                                           \
        std::string said = (text);                                                                 \
        EXPECT_NE(said.find(part), std::string::npos)                                              \
            << "said: " << (said.empty() ? "nothing" : said);                                      \
    } while (0)

}  // namespace sim_tests

#endif
