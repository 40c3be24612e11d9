// tests/scenario/snap_model.cpp: random work on a filter with snapshots, against the model
// SPDX-License-Identifier: GPL-2.0-only
#include "os/sim/seeds.h"
#include "tests/scenario/snap_run.h"
#include "tests/support/fs_images.h"

using namespace snap_run;

namespace {

constexpr std::uint64_t kBase =
    8;  // sectors that a file system of blocks of 1 KiB keeps for itself

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
    if (dice.below(24) == 0) {  // more waits at once than one group takes
        plan.sectors = 16384;
        plan.chunk_size = 1u << 20;
        plan.longest = 2048;
        plan.submitters = plan.in_flight = 4;
        plan.ops = 10;
    }
    plan.base = dice.below(4) == 0 ? kBase : 0;
    return plan;
}

// A file system whose free space lies here and there.
void put_file_system(Machine &machine, std::uint64_t seed, Plan *plan) {
    Dice dice{seed + 77};
    const std::uint64_t blocks = plan->sectors / 2;
    fs_images::Ext2 fs(1024, static_cast<std::uint32_t>(blocks));
    for (std::uint64_t b = kBase / 2; b < blocks;) {
        const bool used = dice.below(2) == 0;
        for (std::uint64_t end = std::min(blocks, b + 1 + dice.below(64)); b < end; ++b)
            fs.used[b] = used;
    }
    for (const fs_images::Piece &piece : fs.pieces())
        machine.disk.write(piece.offset, piece.bytes);
    const std::uint64_t per_chunk = plan->chunk_size / 1024;
    plan->no_data.assign((plan->sectors * kSector + plan->chunk_size - 1) / plan->chunk_size, true);
    for (std::uint64_t b = 0; b < blocks; ++b) {
        if (fs.used[b])
            plan->no_data[b / per_chunk] = false;
    }
}

Plan prepared(Machine &machine, std::uint64_t seed, Plan plan) {
    snap_world::prepare(machine);
    if (plan.base != 0)
        put_file_system(machine, seed, &plan);
    return plan;
}

// Group copies of 1024 pages, as the driver tells of them.
void count_groups() {
    events().full_groups += sim::count_log(" chunks (1024 pages), ");
}

// For tests that run as many seeds as they are written for.
void expect_all_kinds(std::uint64_t seeds) {
    const Events &e = events();
    for (const auto &[name, count] : {std::pair{"requests", e.requests},
                                      {"odd", e.odd},
                                      {"smallest", e.smallest},
                                      {"long_ones", e.long_ones},
                                      {"creations", e.creations},
                                      {"starts", e.starts},
                                      {"stops", e.stops},
                                      {"postponed", e.postponed},
                                      {"deletions", e.deletions},
                                      {"maps", e.maps},
                                      {"full_groups", e.full_groups},
                                      {"images", e.images}}) {
        ::testing::Test::RecordProperty(name, std::to_string(count));
        std::printf("%s %llu  ", name, static_cast<unsigned long long>(count));
        const bool whole = sim::seed_setting("TRAK_SEED", 0) == 0 &&
                           sim::seed_setting("TRAK_SEEDS", seeds) >= seeds;
        if (whole) {
            EXPECT_GT(count, 0u) << name;
        }
    }
    std::printf("\n");
}

sim::Options options_of(std::uint64_t seed) {
    sim::Options options;
    options.seed = seed;
    return options;
}

void run_plan(std::uint64_t seed, const Plan &asked) {
    Machine machine(asked.sectors * kSector);
    const Plan plan = prepared(machine, seed, asked);
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
            count_groups();
        },
        plan.sectors == 16384 ? 2 : 1, options_of(seed));
}

}  // namespace

TEST(snapshot, reads_and_disk_equal_the_model_under_random_work) {
    constexpr std::uint64_t seeds = 150;
    events() = {};
    sim::for_each_seed(seeds, [](std::uint64_t seed) { run_plan(seed, plan_of(seed)); });
    expect_all_kinds(seeds);
}

TEST(snapshot, is_the_same_after_the_module_was_loaded_again) {
    events() = {};
    sim::for_each_seed(60, [](std::uint64_t seed) {
        const Plan asked = plan_of(seed);
        Machine machine(asked.sectors * kSector);
        const Plan plan = prepared(machine, seed, asked);
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
    std::printf("resumes %llu, images %llu\n", static_cast<unsigned long long>(events().resumes),
                static_cast<unsigned long long>(events().images));
    EXPECT_GT(events().resumes, 0u);
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
