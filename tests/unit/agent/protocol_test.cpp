// tests/unit/agent/protocol_test.cpp: no order of writes, failures and kills loses a change
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/agent/backup_world.h"

#include "agent/events.h"

#include <gtest/gtest.h>

namespace {

using agent::Failure;
using agent::Kind;
using fake::Killed;
using fake::World;

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// Files of the store that only a run that is under way has.
std::string leftovers(const World &world) {
    std::string found;
    for (const std::string &name : world.store_files())
        if (contains(name, ".partial") || contains(name, "run.") || contains(name, ".cow") ||
            contains(name, ".new"))
            found += name + " ";
    return found;
}

uint64_t snaps(const World &world) {
    uint64_t count = 0;
    for (const auto &[minor, node] : world.driver->nodes)
        count += node.type == TRAK_DEV_SNAP;
    return count;
}

// After whatever happened: a new run restores to its own moment, and nothing is left behind.
void expect_whole_again(World &world, const std::string &what) {
    SCOPED_TRACE(what);
    world.revive();
    world.write(3);
    ASSERT_NO_THROW(EXPECT_EQ(0, world.backup(Kind::incr)));
    EXPECT_EQ("", world.judge());
    EXPECT_EQ("", leftovers(world));
    EXPECT_EQ(0u, snaps(world));
    world.write(5);
    ASSERT_NO_THROW(EXPECT_EQ(0, world.backup(Kind::diff)));
    EXPECT_EQ("", world.judge());
}

// Every call of an incr, each seventh one of the others, which mostly make the same calls.
int64_t stride(Kind kind) {
    return kind == Kind::incr ? 1 : 7;
}

// Full, and some writes.
void begin(World &world) {
    ASSERT_EQ(0, world.backup(Kind::full));
    for (uint32_t extent : {1, 2, 9})
        world.write(extent);
    ASSERT_EQ(0, world.backup(Kind::incr));
    for (uint32_t extent : {2, 11, 23})
        world.write(extent);
}

TEST(backup, each_kind_restores_to_its_moment_while_the_disk_is_written) {
    World world;
    world.busy = true;
    for (Kind kind : {Kind::full, Kind::incr, Kind::diff, Kind::incr, Kind::incr, Kind::diff,
                      Kind::full, Kind::diff, Kind::incr}) {
        ASSERT_EQ(0, world.backup(kind));
        ASSERT_EQ("", world.judge());
    }
    EXPECT_EQ((std::vector<std::string>{"000001-full", "000002-incr", "000003-diff", "000004-incr",
                                        "000005-incr", "000006-diff", "000007-full", "000008-diff",
                                        "000009-incr"}),
              world.backups());
    EXPECT_EQ("", leftovers(world));
}

TEST(backup, a_diff_builds_on_the_last_full_and_an_incr_on_the_last_full_or_incr) {
    World world;
    begin(world);
    ASSERT_EQ(0, world.backup(Kind::diff));
    EXPECT_EQ("000001-full", world.newest().parent);
    EXPECT_EQ(5u, world.newest().extents_copied);  // all since the full one, a diff clears nothing
    ASSERT_EQ(0, world.backup(Kind::incr));
    EXPECT_EQ("000002-incr", world.newest().parent);
    EXPECT_EQ(3u, world.newest().extents_copied);
    EXPECT_EQ("", world.judge());
}

TEST(backup, a_marker_stands_before_the_map_is_cleared_and_goes_when_the_map_is_held) {
    World world;
    begin(world);
    // What is in the store when the driver gets the command that clears.
    std::vector<std::string> at_clear;
    auto refuse = world.driver->refuse;
    world.driver->refuse = [&](uint32_t code) {
        if (code == TRAK_GET_AND_CLR_BMP)
            at_clear = world.store_files();
        return refuse(code);
    };
    ASSERT_EQ(0, world.backup(Kind::incr));
    auto has = [&](const std::string &name) {
        return std::find(at_clear.begin(), at_clear.end(), name) != at_clear.end();
    };
    EXPECT_TRUE(has("run.json"));
    EXPECT_TRUE(has("run.incr.marker"));
    EXPECT_FALSE(has("run.incr.map"));
}

TEST(backup, the_snapshot_starts_after_the_map_was_taken_and_the_map_is_read_again_after_it) {
    World world;
    begin(world);
    world.driver->codes.clear();
    ASSERT_EQ(0, world.backup(Kind::incr));
    std::vector<uint32_t> order;
    for (uint32_t code : world.driver->codes)
        if (code == TRAK_ADD_SNAP_NODE || code == TRAK_GET_AND_CLR_BMP || code == TRAK_START_NODE ||
            code == TRAK_GET_BMP || code == TRAK_DEL_NODE || code == TRAK_MERGE_BMP)
            order.push_back(code);
    EXPECT_EQ((std::vector<uint32_t>{TRAK_ADD_SNAP_NODE, TRAK_GET_AND_CLR_BMP, TRAK_START_NODE,
                                     TRAK_GET_BMP, TRAK_DEL_NODE}),
              order);
}

TEST(backup, killed_at_any_step_the_next_one_restores_to_its_moment) {
    for (Kind kind : {Kind::full, Kind::incr, Kind::diff})
        for (const agent::StepName &step : agent::step_names()) {
            bool comes_by = kind == Kind::full   ? step.full
                            : kind == Kind::incr ? step.incr
                                                 : step.diff;
            if (!comes_by)
                continue;
            World world;
            begin(world);
            world.busy = true;
            world.kill_at = step.name;
            EXPECT_THROW(world.backup(kind), Killed) << step.name;
            world.write(17);
            expect_whole_again(world, std::string(agent::kind_name(kind)) + " " + step.name);
        }
}

TEST(backup, killed_with_the_driver_at_any_step_the_next_one_restores_to_its_moment) {
    for (Kind kind : {Kind::full, Kind::incr, Kind::diff})
        for (const agent::StepName &step : agent::step_names()) {
            bool comes_by = kind == Kind::full   ? step.full
                            : kind == Kind::incr ? step.incr
                                                 : step.diff;
            if (!comes_by)
                continue;
            World world;
            begin(world);
            world.kill_at = step.name;
            EXPECT_THROW(world.backup(kind), Killed) << step.name;
            world.revive();
            world.lose_driver();
            world.attach("{00000000-0000-0000-0000-000000000001}", true);
            expect_whole_again(world, std::string(agent::kind_name(kind)) + " " + step.name);
        }
}

TEST(backup, killed_again_while_it_settles_the_next_one_restores_to_its_moment) {
    for (const char *first : {"incr-taken", "incr-held", "copy-half", "committed"})
        for (const char *second :
             {"settling", "given-back", "snap-removed", "swept", "map-released", "ended"}) {
            World world;
            begin(world);
            world.kill_at = first;
            EXPECT_THROW(world.backup(Kind::incr), Killed);
            world.revive();
            world.write(6);
            world.kill_at = second;
            EXPECT_THROW(world.backup(Kind::incr), Killed) << first << " " << second;
            expect_whole_again(world, std::string(first) + " " + second);
        }
}

// Lets each counted call of a backup fail in turn, and looks whether the next backup is whole.
// `prepare` says which call fails; `counted` tells how many there were.
template <typename Prepare, typename Counted>
void fail_each_call(const char *what, int64_t most, Prepare prepare, Counted counted) {
    for (Kind kind : {Kind::full, Kind::incr, Kind::diff})
        for (int64_t call = 0;; call += stride(kind)) {
            ASSERT_LT(call, most);
            World world;
            begin(world);
            world.revive();
            prepare(world, call);
            try {
                (void)world.backup(kind);
            } catch (const Failure &failure) {
                EXPECT_NE("", failure.text);
            }
            bool reached = counted(world) > call;
            expect_whole_again(world, std::string(agent::kind_name(kind)) + " " + what + " " +
                                          std::to_string(call));
            if (!reached || testing::Test::HasFatalFailure())
                break;
        }
}

TEST(backup, any_failing_command_is_reported_and_the_next_one_restores_to_its_moment) {
    fail_each_call(
        "command", 500, [](World &world, int64_t call) { world.fail_command = call; },
        [](const World &world) { return world.commands; });
}

TEST(backup, any_failing_call_of_the_store_is_reported_and_the_next_one_restores_to_its_moment) {
    fail_each_call(
        "store call", 1000,
        [](World &world, int64_t call) {
            world.busy = true;
            world.fail_store_call = call;
        },
        [](const World &world) { return world.store_calls; });
}

TEST(backup, an_answer_that_is_lost_after_the_map_was_cleared_loses_no_change) {
    World world;
    begin(world);
    auto lose = world.driver->lose;
    bool once = true;
    world.driver->lose = [&](uint32_t code) {
        int rc = lose(code);
        return code == TRAK_GET_AND_CLR_BMP && std::exchange(once, false) ? -EFAULT : rc;
    };
    EXPECT_THROW(world.backup(Kind::incr), Failure);
    expect_whole_again(world, "a lost answer");
}

TEST(backup, an_interrupted_run_gives_its_map_back_at_once) {
    World world;
    begin(world);
    auto lose = world.driver->lose;
    world.driver->lose = [&](uint32_t code) {
        if (code == TRAK_GET_AND_CLR_BMP)
            agent::interrupted = 1;
        return lose(code);
    };
    EXPECT_THROW(world.backup(Kind::incr), agent::Interrupted);
    agent::interrupted = 0;
    for (uint32_t extent : {2u, 11u, 23u})
        EXPECT_TRUE(world.driver->marked(0, TRAK_BMP_INCR, extent));
    EXPECT_EQ("", leftovers(world));
    EXPECT_EQ(0u, snaps(world));
    world.driver->lose = lose;
    expect_whole_again(world, "an interrupt");
}

TEST(backup, a_snapshot_that_becomes_invalid_is_named_and_the_map_is_given_back) {
    World world;
    begin(world);
    world.snap_dies = true;
    try {
        (void)world.backup(Kind::incr);
        FAIL() << "it succeeded";
    } catch (const Failure &failure) {
        EXPECT_TRUE(contains(failure.text, "the snapshot became invalid")) << failure.text;
    }
    EXPECT_TRUE(world.driver->marked(0, TRAK_BMP_INCR, 11));
    EXPECT_EQ("", leftovers(world));
    world.snap_dies = false;
    expect_whole_again(world, "an invalid snapshot");
}

TEST(backup, an_image_that_the_check_refuses_is_no_backup) {
    World world;
    begin(world);
    world.images.check_fails = true;
    EXPECT_THROW(world.backup(Kind::incr), Failure);
    EXPECT_EQ(2u, world.backups().size());
    world.images.check_fails = false;
    expect_whole_again(world, "a refused image");
}

TEST(backup, a_marker_without_its_map_means_that_everything_changed) {
    World world;
    begin(world);
    world.kill_at = "incr-taken";
    EXPECT_THROW(world.backup(Kind::incr), Killed);
    EXPECT_FALSE(world.driver->marked(0, TRAK_BMP_INCR, 11));
    world.revive();
    world.forget_said();
    ASSERT_EQ(0, world.backup(Kind::incr));
    EXPECT_EQ(Kind::full, world.newest().kind);
    EXPECT_TRUE(contains(world.said(), "everything counts as changed in the incr map"));
    EXPECT_TRUE(contains(world.newest().reason, "every extent has changed"));
}

TEST(backup, a_map_that_was_held_is_given_back_and_stays_incremental) {
    World world;
    begin(world);
    world.kill_at = "copy-half";
    EXPECT_THROW(world.backup(Kind::incr), Killed);
    world.revive();
    ASSERT_EQ(0, world.backup(Kind::incr));
    EXPECT_EQ(Kind::incr, world.newest().kind);
    EXPECT_EQ(3u, world.newest().extents_copied);
    EXPECT_EQ("", world.judge());
}

TEST(backup, a_map_of_a_backup_that_is_there_is_not_given_back) {
    World world;
    begin(world);
    world.kill_at = "committed";
    EXPECT_THROW(world.backup(Kind::incr), Killed);
    world.revive();
    world.write(4);
    ASSERT_EQ(0, world.backup(Kind::incr));
    EXPECT_EQ(
        (std::vector<std::string>{"000001-full", "000002-incr", "000003-incr", "000004-incr"}),
        world.backups());
    EXPECT_EQ(1u, world.newest().extents_copied);
    EXPECT_EQ("", world.judge());
}

TEST(backup, a_damaged_record_of_a_run_means_that_everything_changed) {
    World world;
    begin(world);
    world.kill_at = "copy-half";
    EXPECT_THROW(world.backup(Kind::incr), Killed);
    world.revive();
    world.dir.put("store/run.json", "{");
    ASSERT_EQ(0, world.backup(Kind::incr));
    EXPECT_EQ(Kind::full, world.newest().kind);
    EXPECT_EQ("", leftovers(world));
    EXPECT_EQ(0u, snaps(world));
    EXPECT_EQ("", world.judge());
}

TEST(backup, another_running_snapshot_is_left_alone) {
    World world;
    begin(world);
    fake::Node other;
    other.type = TRAK_DEV_SNAP;
    other.dev_size = world.disk.size();
    other.started = other.valid = true;
    other.uuid = "{other}";
    world.driver->nodes[5] = other;
    world.driver->nodes.at(0).snaps.push_back(5);
    ASSERT_EQ(0, world.backup(Kind::incr));
    for (uint32_t extent : {2u, 11u, 23u})
        EXPECT_FALSE(world.driver->marked(0, TRAK_BMP_INCR, extent));
    ASSERT_TRUE(world.driver->nodes.contains(5));
    EXPECT_TRUE(world.driver->nodes.at(5).started);
    EXPECT_EQ("", world.judge());
}

}  // namespace
