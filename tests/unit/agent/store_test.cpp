// tests/unit/agent/store_test.cpp: manifests, maps, hashes and chains, whole and damaged
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/bits.h"
#include "agent/checksum.h"
#include "agent/hashes.h"
#include "agent/prune.h"
#include "agent/request.h"
#include "agent/restore.h"
#include "agent/verify.h"
#include "tests/unit/agent/backup_world.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <random>
#include <sstream>

namespace {

using agent::Failure;
using agent::Kind;
using agent::Manifest;
using agent::Map;

Manifest example() {
    Manifest m;
    m.id = "000002-incr";
    m.number = 2;
    m.kind = Kind::incr;
    m.parent = "000001-full";
    m.run = agent::new_uuid();
    m.store = agent::new_uuid();
    m.node = {"{u}", "trak0", "/dev/sda \"1\"\n", 3, 1000000, 65536};
    m.block_size = 65536;
    m.seed = 0xfedcba9876543210;
    m.begun = m.frozen = m.ended = agent::now_text();
    m.extents_copied = 7;
    m.bytes_read = 123456789012345;
    m.seconds = {{"copy", 1.25}, {"map", 0}};
    m.image = {"000002-incr.qcow2", 5, "xxh128:00"};
    m.hashes = {"000002-incr.hashes", 6, "xxh128:01"};
    m.map = {"000002-incr.map", 7, "xxh128:02"};
    m.audit = {16, 1, {9}};
    return m;
}

TEST(manifest, is_read_as_it_was_written) {
    std::string text = agent::manifest_text(example());
    Manifest read = agent::manifest_from("m", text);
    EXPECT_EQ(agent::manifest_text(read), text);
    EXPECT_EQ(read.seed, 0xfedcba9876543210);
    EXPECT_EQ(read.node.disk, "/dev/sda \"1\"\n");
}

TEST(manifest, any_changed_byte_is_a_failure_that_names_the_file) {
    std::string good = agent::manifest_text(example());
    std::mt19937 dice(3);
    for (size_t at = 0; at < good.size(); at++) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ (1u << (dice() % 8)));
        try {
            agent::manifest_from("/store/m.json", bad);
            FAIL() << "byte " << at << " may be changed";
        } catch (const Failure &failure) {
            EXPECT_NE(failure.text.find("/store/m.json"), std::string::npos);
        }
    }
}

TEST(manifest, a_text_that_is_cut_off_or_of_other_types_is_a_failure) {
    std::string good = agent::manifest_text(example());
    for (size_t size = 0; size < good.size(); size += 7)
        EXPECT_THROW(agent::manifest_from("m", good.substr(0, size)), Failure);
    for (const char *text : {"null", "[]", "{}", "{\"format\": 1}", "\xff\xfe"})
        EXPECT_THROW(agent::manifest_from("m", text), Failure) << text;
    Manifest out = example();
    out.image.file = "../../etc/passwd";
    EXPECT_THROW(agent::manifest_from("m", agent::manifest_text(out)), Failure);
}

TEST(map, file_is_read_as_it_was_written_and_any_changed_byte_is_found) {
    Map map(1000000, 4096);
    map.set(0);
    map.set(100);
    map.set(map.count() - 1);
    std::vector<uint8_t> bytes = agent::map_file_bytes(map, "{run}");
    EXPECT_EQ(agent::map_from_file("m", bytes, "{run}").bytes(), map.bytes());
    EXPECT_THROW(agent::map_from_file("m", bytes, "{other}"), Failure);
    for (size_t at = 0; at < bytes.size(); at++) {
        std::vector<uint8_t> bad = bytes;
        bad[at] ^= 0x10;
        EXPECT_THROW(agent::map_from_file("m", bad, "{run}"), Failure) << at;
    }
    bytes.pop_back();
    EXPECT_THROW(agent::map_from_file("m", bytes, "{run}"), Failure);
}

TEST(map, counts_the_bytes_of_a_last_extent_that_the_disk_cuts) {
    Map map(10 * 4096 + 512, 4096);
    EXPECT_EQ(11u, map.count());
    map.set(10);
    EXPECT_EQ(512u, map.marked_bytes());
    map.set_all();
    EXPECT_TRUE(map.full());
    EXPECT_EQ(map.disk_size(), map.marked_bytes());
}

TEST(map, is_refined_into_smaller_units_of_the_same_bytes) {
    Map map(5 * 65536 + 4096, 65536);
    map.set(1);
    map.set(5);
    Map fine = map.refined(4096);
    EXPECT_EQ(map.marked_bytes(), fine.marked_bytes());
    EXPECT_EQ(16u, fine.next(0).first);
    EXPECT_EQ(80u, fine.next(32).first);
}

TEST(hashes, are_found_where_they_were_put_and_nowhere_else) {
    fake::TempDir dir;
    uint64_t disk = uint64_t{1} << 40;
    {
        agent::HashWriter writer(dir.path("h"), disk, 65536);
        agent::Hash hashes[2] = {{1, 2}, {3, 4}};
        writer.put(5, hashes, 2);
        writer.put((disk >> 16) - 1, hashes, 1);
    }
    agent::HashReader reader(dir.path("h"), disk, 65536);
    EXPECT_EQ(agent::no_hash, reader.get(4));
    EXPECT_EQ((agent::Hash{3, 4}), reader.get(6));
    EXPECT_EQ(5u, reader.next(0));
    EXPECT_EQ(6u, reader.next(6));
    EXPECT_EQ((disk >> 16) - 1, reader.next(7));
    EXPECT_EQ(disk >> 16, reader.next(disk >> 16));
    EXPECT_THROW(agent::HashReader(dir.path("h"), disk, 4096), Failure);
}

TEST(prune, leaves_every_point_that_stays_as_it_was) {
    for (uint64_t keep = 1; keep <= 5; keep++) {
        fake::World world;
        ASSERT_EQ(0, world.backup(Kind::full));
        for (Kind kind : {Kind::incr, Kind::diff, Kind::incr, Kind::diff}) {
            world.write(static_cast<uint32_t>(keep));
            ASSERT_EQ(0, world.backup(kind));
        }
        std::ostringstream out;
        agent::Events events;
        events.out = events.err = &out;
        EXPECT_EQ(0, agent::prune(world.images, events, {world.store, keep, 0, false}));
        EXPECT_EQ("", world.judge()) << keep;
        EXPECT_EQ(0, agent::verify(world.images, events, {world.store, false})) << out.str();
        EXPECT_GE(world.backups().size(), keep);
        world.write(9);
        ASSERT_EQ(0, world.backup(Kind::incr));
        ASSERT_EQ(0, world.backup(Kind::diff));
        EXPECT_EQ("", world.judge()) << keep;
    }
}

TEST(prune, a_merged_backup_tells_of_every_extent_that_it_holds) {
    fake::World world;
    ASSERT_EQ(0, world.backup(Kind::full));
    for (uint32_t extent : {4, 9, 17}) {
        world.write(extent);
        ASSERT_EQ(0, world.backup(Kind::incr));
    }
    ASSERT_EQ(0, world.backup(Kind::diff));
    std::ostringstream out;
    agent::Events events;
    events.out = events.err = &out;
    // The full one stays under two; of the three on it the last one is left.
    ASSERT_EQ(0, agent::prune(world.images, events, {world.store, 2, 0, false}));
    ASSERT_EQ((std::vector<std::string>{"000001-full", "000004-incr", "000005-diff"}),
              world.backups());
    agent::Store store(world.store, agent::Store::existing);
    const Manifest &merged = store.point("000004-incr");
    Map map = agent::map_from_file("m", *agent::files::read_file(store.path(merged.map.file)),
                                   merged.run);
    for (uint32_t extent = 0; extent < fake::extent_count; extent++)
        EXPECT_EQ(extent == 4 || extent == 9 || extent == 17, map.get(extent)) << extent;
    EXPECT_EQ((std::vector<std::string>{"000002-incr", "000003-incr"}), merged.merged);
}

TEST(verify, finds_an_image_that_never_was_what_its_hashes_say) {
    fake::World world;
    ASSERT_EQ(0, world.backup(Kind::full));
    Manifest made = world.newest();
    std::string path = world.store + "/" + made.image.file;
    {
        agent::files::Fd file = agent::files::open_file(path, O_RDWR, 0);
        agent::files::write_at(file.get(), "!", 1, 5 * fake::extent_bytes, path);
    }
    made.image.checksum = agent::checksum_file(path, nullptr);
    world.dir.put("store/000001-full.json", agent::manifest_text(made));
    std::ostringstream out;
    agent::Events events;
    events.out = events.err = &out;
    EXPECT_EQ(0, agent::verify(world.images, events, {world.store, true})) << out.str();
    EXPECT_EQ(1, agent::verify(world.images, events, {world.store, false}));
    EXPECT_NE(out.str().find("000001-full.qcow2: 1 blocks are not what was backed up (extents 5)"),
              std::string::npos)
        << out.str();
}

TEST(prune, any_failing_call_leaves_a_store_that_the_next_prune_finishes) {
    for (int64_t call = 0;; call += 5) {
        ASSERT_LT(call, 1000);
        fake::World world;
        ASSERT_EQ(0, world.backup(Kind::full));
        for (int i = 0; i < 3; i++) {
            world.write(static_cast<uint32_t>(i));
            ASSERT_EQ(0, world.backup(Kind::incr));
        }
        world.revive();
        world.fail_store_call = call;
        std::ostringstream out;
        agent::Events events;
        events.out = events.err = &out;
        try {
            agent::prune(world.images, events, {world.store, 2, 0, false});
        } catch (const Failure &) {
        }
        bool reached = world.store_calls > call;
        world.revive();
        ASSERT_EQ(0, agent::prune(world.images, events, {world.store, 2, 0, false})) << call;
        ASSERT_EQ(0, agent::verify(world.images, events, {world.store, false})) << out.str();
        EXPECT_EQ((std::vector<std::string>{"000003-incr", "000004-incr"}), world.backups());
        EXPECT_EQ("", world.judge());
        if (!reached)
            break;
    }
}

TEST(decision, a_newest_backup_that_is_lost_makes_a_full_one) {
    fake::World world;
    ASSERT_EQ(0, world.backup(Kind::full));
    world.write(1);
    ASSERT_EQ(0, world.backup(Kind::incr));
    for (const char *suffix : {".json", ".qcow2", ".map", ".hashes"})
        agent::files::remove_file(world.store + "/000002-incr" + suffix);
    world.write(2);
    ASSERT_EQ(0, world.backup(Kind::incr));
    EXPECT_EQ(Kind::full, world.newest().kind);
    EXPECT_NE(world.newest().reason.find("not in the store"), std::string::npos);
}

TEST(decision, two_stores_in_turn_never_lack_what_the_other_one_cleared) {
    fake::World world;
    std::string one = world.store, other = world.dir.path("other");
    for (int round = 0; round < 4; round++) {
        world.write(static_cast<uint32_t>(round));
        world.store = round % 2 == 0 ? one : other;
        ASSERT_EQ(0, world.backup(Kind::incr));
        EXPECT_EQ(Kind::full, world.newest().kind);
        EXPECT_EQ("", world.judge());
    }
    world.write(7);
    ASSERT_EQ(0, world.backup(Kind::incr));
    EXPECT_EQ(Kind::incr, world.newest().kind);
}

TEST(decision, another_uuid_makes_a_full_one_and_no_full_refuses_it) {
    fake::World world;
    ASSERT_EQ(0, world.backup(Kind::full));
    world.lose_driver();
    world.attach("{another}", false);
    agent::BackupOptions options = world.options(Kind::incr);
    options.no_full = true;
    try {
        world.backup(options);
        FAIL() << "it was made";
    } catch (const Failure &failure) {
        EXPECT_NE(failure.text.find("is not the one of the last backup"), std::string::npos);
    }
    ASSERT_EQ(0, world.backup(Kind::incr));
    EXPECT_EQ(Kind::full, world.newest().kind);
    EXPECT_EQ("", world.judge());
}

TEST(decision, a_map_is_given_back_to_no_other_node) {
    fake::World world;
    ASSERT_EQ(0, world.backup(Kind::full));
    world.write(11);
    world.kill_at = "incr-held";
    EXPECT_THROW(world.backup(Kind::incr), fake::Killed);
    world.revive();
    world.lose_driver();
    world.attach("{another}", false);
    ASSERT_EQ(0, world.backup(Kind::diff));
    EXPECT_NE(world.said().find("is dropped: the node is {another} now"), std::string::npos);
    for (uint32_t command : world.driver->codes)
        EXPECT_TRUE(command != TRAK_MERGE_BMP);
    EXPECT_EQ(Kind::full, world.newest().kind);
    EXPECT_EQ("", world.judge());
}

TEST(audit, names_the_extent_that_was_written_past_the_filter) {
    fake::World world;
    ASSERT_EQ(0, world.backup(Kind::full));
    world.write(3);
    EXPECT_EQ(0, world.audit(true));
    world.write_past_the_filter(13);
    EXPECT_EQ(agent::status_audit, world.audit(true));
    EXPECT_NE(world.said().find("(extents 13)"), std::string::npos);
    EXPECT_TRUE(world.driver->marked(0, TRAK_BMP_INCR, 3));  // nothing was cleared
}

// A hash file of which one bit is wrong, and a disk of which nothing is.
TEST(audit, names_a_hash_file_that_is_damaged_and_blames_no_write) {
    fake::World world;
    ASSERT_EQ(0, world.backup(Kind::full));
    world.write(3);
    std::string path = world.store + "/000001-full.hashes";
    {
        agent::files::Fd file = agent::files::open_file(path, O_RDWR, 0);
        uint8_t byte = 0;
        uint64_t of_block_7 = 4096 + 7 * sizeof(agent::Hash);
        ASSERT_EQ(1u, agent::files::read_at(file.get(), &byte, 1, of_block_7, path));
        byte ^= 1;
        agent::files::write_at(file.get(), &byte, 1, of_block_7, path);
    }
    auto expect_named = [&] {
        EXPECT_NE(world.said().find("(extents 7): " + path + " is damaged"), std::string::npos)
            << world.said();
        EXPECT_EQ(world.said().find("wrote past"), std::string::npos);
        world.forget_said();
    };
    EXPECT_EQ(agent::status_audit, world.audit(true));
    expect_named();
    agent::BackupOptions options = world.options(Kind::incr);
    options.audit_sample = 1000;
    EXPECT_EQ(agent::status_audit, world.backup(options));
    expect_named();
    EXPECT_EQ("", world.judge());
}

TEST(command_line, refuses_what_makes_no_sense_in_one_line_with_status_2) {
    const std::vector<std::vector<const char *>> wrong = {
        {},
        {"explode"},
        {"full"},
        {"full", "--disk", "0"},
        {"incr", "--disk", "0", "--store", "s", "--kill-at", "nowhere"},
        {"prune", "--store", "s"},
        {"prune", "--store", "s", "--keep-count", "0"},
        {"restore", "--store", "s"},
        {"audit", "--disk", "0", "--store", "s", "--all", "--sample", "4"},
    };
    for (std::vector<const char *> words : wrong) {
        words.insert(words.begin(), "trak-backup");
        auto parsed = agent::parse_command_line(static_cast<int>(words.size()), words.data());
        auto *early = std::get_if<agent::Early>(&parsed);
        ASSERT_NE(nullptr, early) << words.back();
        EXPECT_EQ(2, early->status);
        EXPECT_EQ(1, std::count(early->text.begin(), early->text.end(), '\n')) << early->text;
    }
}

TEST(command_line, understands_sizes_and_steps) {
    const char *words[] = {"trak-backup",
                           "--json",
                           "incr",
                           "--disk",
                           "7",
                           "--store",
                           "s",
                           "--cow-reserve",
                           "3M",
                           "--stop-at",
                           "incr-marked",
                           "--audit-sample",
                           "0",
                           "--no-full",
                           "--chunk-size",
                           "16K"};
    auto parsed = agent::parse_command_line(std::size(words), words);
    auto *request = std::get_if<agent::Request>(&parsed);
    ASSERT_NE(nullptr, request);
    EXPECT_EQ(3u << 20, request->cow_reserve);
    EXPECT_EQ(16u << 10, request->chunk_size);
    EXPECT_EQ(0, request->audit_sample);
    EXPECT_TRUE(request->no_full && request->json);
    EXPECT_EQ("incr-marked", request->stop_at);
}

}  // namespace
