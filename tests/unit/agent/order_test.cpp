// tests/unit/agent/order_test.cpp: what a backup makes durable, and when
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/agent/backup_world.h"

#include <gtest/gtest.h>

namespace {

using agent::Kind;
using fake::World;

// What reaches the driver and the disk, as "call name" in order.
std::vector<std::string> calls_of_a_backup(World &world) {
    std::vector<std::string> calls;
    auto hook = agent::files::hook;
    agent::files::hook = [&](const char *call, const std::string &path) {
        calls.push_back(std::string(call) + " " + path.substr(path.rfind('/') + 1));
        return hook(call, path);
    };
    auto refuse = world.driver->refuse;
    world.driver->refuse = [&](uint32_t code) {
        calls.emplace_back(code == TRAK_GET_AND_CLR_BMP ? "clear"
                           : code == TRAK_START_NODE    ? "start"
                           : code == TRAK_DEL_NODE      ? "delete"
                                                        : "command");
        return refuse(code);
    };
    EXPECT_EQ(0, world.backup(Kind::incr));
    agent::files::hook = hook;
    world.driver->refuse = refuse;
    return calls;
}

TEST(backup, each_step_is_durable_before_the_next_one_begins) {
    World world;
    ASSERT_EQ(0, world.backup(Kind::full));
    world.write(2);
    ASSERT_EQ(0, world.backup(Kind::incr));
    world.write(11);
    std::vector<std::string> calls = calls_of_a_backup(world);
    const char *order[] = {"sync run.json.new", "rename run.json.new", "sync store",
                           // The marker, and the map.
                           "sync run.incr.marker.new", "rename run.incr.marker.new", "sync store",
                           "clear", "sync run.incr.map.new", "rename run.incr.map.new",
                           "sync store", "remove run.incr.marker", "sync store", "start",
                           // The backup: the files before their names, these before the manifest's.
                           "sync 000003-incr.qcow2.partial", "sync 000003-incr.hashes.partial",
                           "sync 000003-incr.map.partial", "sync 000003-incr.json.partial",
                           "rename 000003-incr.qcow2.partial", "rename 000003-incr.hashes.partial",
                           "rename 000003-incr.map.partial", "sync store",
                           "rename 000003-incr.json.partial", "sync store",
                           // The map goes after that, and the record last.
                           "delete", "remove run.incr.map", "sync store", "remove run.json",
                           "sync store"};
    auto at = calls.begin();
    for (const char *call : order) {
        auto found = std::find(at, calls.end(), call);
        ASSERT_NE(found, calls.end()) << call << " does not come where it should";
        at = found + 1;
    }
}

}  // namespace
