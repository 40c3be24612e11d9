// tests/scenario/snap_model.cpp: random work on a filter with snapshots, against the model
// SPDX-License-Identifier: GPL-2.0-only
#include "os/sim/seeds.h"
#include "tests/scenario/snap_run.h"

using namespace snap_run;

namespace {

// A small generator of its own: the plan is there before the world is.
struct Dice {
    std::uint64_t state;
    std::uint64_t below(std::uint64_t n) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return (state >> 33) % n;
    }
};

Plan plan_of(std::uint64_t seed) {
    Dice dice{seed * 0x9e3779b97f4a7c15u + 1};
    Plan plan;
    plan.chunk_size = 4096u << (dice.below(3) != 0 ? dice.below(3) : dice.below(9));
    plan.sectors = 64 + dice.below(1200);
    if (dice.below(8) == 0)  // larger than one group
        plan.sectors = 8192 + dice.below(4096);
    plan.longest = dice.below(4) == 0 ? 2048 : 8 + dice.below(120);
    plan.longest = std::min(plan.longest, plan.sectors);
    plan.snaps = 1 + static_cast<unsigned>(dice.below(4));
    plan.submitters = 1 + static_cast<unsigned>(dice.below(4));
    plan.in_flight = 1 + static_cast<unsigned>(dice.below(4));
    plan.ops = 10 + static_cast<unsigned>(dice.below(40));
    plan.file_system = dice.below(3) == 0;
    // Without a file system nobody waits for a write that was sent while there was no snap node.
    plan.keep_one = !plan.file_system || dice.below(2) == 0;
    return plan;
}

sim::Options options_of(std::uint64_t seed) {
    sim::Options options;
    options.seed = seed;
    return options;
}

void run_plan(std::uint64_t seed, const Plan &plan) {
    Machine machine(plan.sectors * kSector);
    snap_world::prepare(machine);
    SnapRun run(machine, plan);
    driver_world::boot(
        machine,
        [&] {
            run.build();
            run.work();
            sim::fail_none();
            run.check_all();
            run.overwrite_all();
            run.check_all();
        },
        1, options_of(seed));
}

}  // namespace

TEST(snapshot, reads_and_disk_equal_the_model_under_random_work) {
    sim::for_each_seed(150, [](std::uint64_t seed) { run_plan(seed, plan_of(seed)); });
}

TEST(snapshot, is_the_same_after_the_module_was_loaded_again) {
    sim::for_each_seed(60, [](std::uint64_t seed) {
        const Plan plan = plan_of(seed);
        Machine machine(plan.sectors * kSector);
        snap_world::prepare(machine);
        SnapRun run(machine, plan);
        driver_world::boot(
            machine,
            [&] {
                run.build();
                run.work();
                run.reload();
                run.work();
                run.check_all();
                run.reload();
                run.overwrite_all();
                run.check_all();
            },
            1, options_of(seed));
    });
}

TEST(snapshot, holds_or_is_given_up_where_anything_may_fail) {
    sim::for_each_seed(150, [](std::uint64_t seed) {
        Plan plan = plan_of(seed);
        plan.faults = true;
        run_plan(seed, plan);
    });
}

TEST(snapshot, is_given_up_and_the_disk_goes_on_where_the_cow_files_have_no_room) {
    sim::for_each_seed(100, [](std::uint64_t seed) {
        Plan plan = plan_of(seed);
        plan.full = true;
        run_plan(seed, plan);
    });
}

// Reads that are on their way when the snapshot is given up, and what the disk shows once the writes go.
TEST(snapshot, never_shows_a_later_write_while_it_is_given_up) {
    sim::for_each_seed(150, [](std::uint64_t seed) {
        Plan plan;
        plan.sectors = 32;
        plan.longest = 32;
        plan.snaps = 1 + static_cast<unsigned>(seed % 3);
        Machine machine(plan.sectors * kSector);
        snap_world::prepare(machine);
        SnapRun run(machine, plan);
        run.give_up(seed, options_of(seed));
    });
}
