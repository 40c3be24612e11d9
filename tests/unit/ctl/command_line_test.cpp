// tests/unit/ctl/command_line_test.cpp: words into requests, and wrong usage
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/request.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

using ctl::Verb;

std::variant<ctl::Request, ctl::Early> parse(std::vector<const char *> words) {
    words.insert(words.begin(), "trakctl");
    return ctl::parse_command_line(static_cast<int>(words.size()), words.data());
}

ctl::Request request(const std::vector<const char *> &words) {
    auto parsed = parse(words);
    auto *early = std::get_if<ctl::Early>(&parsed);
    EXPECT_EQ(nullptr, early) << early->text;
    return early != nullptr ? ctl::Request{} : std::get<ctl::Request>(parsed);
}

void wrong(const std::vector<const char *> &words, const std::string &part) {
    auto parsed = parse(words);
    auto *early = std::get_if<ctl::Early>(&parsed);
    ASSERT_NE(nullptr, early) << part;
    EXPECT_EQ(2, early->status);
    EXPECT_EQ(0u, early->text.find("trakctl: ")) << early->text;
    EXPECT_NE(std::string::npos, early->text.find(part)) << early->text;
    EXPECT_EQ(early->text.size() - 1, early->text.find('\n')) << "one line: " << early->text;
}

TEST(sizes, take_suffixes_for_binary_multiples) {
    EXPECT_EQ(4096u, ctl::parse_size("4096"));
    EXPECT_EQ(65536u, ctl::parse_size("64K"));
    EXPECT_EQ(65536u, ctl::parse_size("64k"));
    EXPECT_EQ(65536u, ctl::parse_size("64KiB"));
    EXPECT_EQ(1u << 20, ctl::parse_size("1M"));
    EXPECT_EQ(3ull << 30, ctl::parse_size("3G"));
    EXPECT_EQ(2ull << 40, ctl::parse_size("2TiB"));
    EXPECT_EQ(7u, ctl::parse_size("7B"));
    EXPECT_EQ(UINT64_MAX, ctl::parse_size("18446744073709551615"));
}

TEST(sizes, refuse_everything_else) {
    for (const char *text : {"", "K", "-1", "+1", "1.5K", "64X", "64KB", "64Ki", "64KiBs", " 64K",
                             "64K ", "0x10", "1BiB", "18446744073709551616", "16777216T"})
        EXPECT_EQ(std::nullopt, ctl::parse_size(text)) << text;
}

TEST(command_line, add_filter_takes_its_options) {
    auto r = request({"add-filter", "--disk", "/dev/sdb", "--extent-size", "64K", "--bmp-dir",
                      "/var/lib/trak", "--minor", "7", "--name", "data", "--uuid", "{u}"});
    EXPECT_EQ(Verb::add_filter, r.verb);
    EXPECT_EQ("/dev/sdb", r.disk);
    EXPECT_EQ(65536u, r.unit_size);
    EXPECT_EQ("/var/lib/trak", r.bmp_dir);
    EXPECT_EQ(7, r.wanted_minor);
    EXPECT_EQ("data", r.name);
    EXPECT_EQ("{u}", r.uuid);
    EXPECT_EQ(-1, request({"add-filter", "--disk", "d", "--extent-size", "4096", "--bmp-dir", "b"})
                      .wanted_minor);
}

TEST(command_line, add_snap_takes_its_options) {
    auto r = request(
        {"add-snap", "--filter", "3", "--chunk-size", "1M", "--cow-bmp", "b", "--cow-data", "d"});
    EXPECT_EQ(Verb::add_snap, r.verb);
    EXPECT_EQ(3u, r.minor);
    EXPECT_EQ(1u << 20, r.unit_size);
    EXPECT_EQ("b", r.cow_bmp);
    EXPECT_EQ("d", r.cow_data);
}

TEST(command_line, every_verb_is_known) {
    EXPECT_EQ(Verb::start, request({"start", "3"}).verb);
    EXPECT_EQ(Verb::stop, request({"stop", "3"}).verb);
    EXPECT_EQ(Verb::del, request({"delete", "3"}).verb);
    EXPECT_EQ(Verb::list, request({"list"}).verb);
    EXPECT_EQ("snap", request({"list", "snap"}).kind);
    EXPECT_EQ(3u, request({"info", "3"}).minor);
    EXPECT_TRUE(request({"status", "--watch"}).watch);
    EXPECT_EQ(Verb::datablock, request({"datablock", "3", "--extent-size", "64K"}).verb);
    EXPECT_EQ("/dev/sdb", request({"test-datablock", "/dev/sdb"}).disk);
    EXPECT_EQ("p.svg", request({"map", "3", "diff", "--svg", "p.svg"}).svg);
    auto r = request({"bitmap", "get-clear", "3", "incr", "--file", "-"});
    EXPECT_EQ("get-clear", r.action);
    EXPECT_EQ("incr", r.kind);
    EXPECT_EQ("-", r.file);
}

TEST(command_line, resume_values_default_to_a_valid_running_snapshot) {
    auto r = request({"resume", "5"}).resume;
    EXPECT_EQ(5u, r.minor);
    EXPECT_EQ(1u, r.snap_valid);
    EXPECT_EQ(0u, r.stop_pending);
    EXPECT_EQ(0u, r.del_pending);
    r = request({"resume", "5", "--valid", "0", "--stop-pending", "1", "--del-pending", "1"})
            .resume;
    EXPECT_EQ(0u, r.snap_valid);
    EXPECT_EQ(1u, r.stop_pending);
    EXPECT_EQ(1u, r.del_pending);
}

TEST(command_line, debug_takes_negative_levels) {
    EXPECT_EQ(std::nullopt, request({"debug"}).level);
    EXPECT_EQ(4, request({"debug", "4"}).level);
    EXPECT_EQ(-1, request({"debug", "-1"}).level);
}

TEST(command_line, json_and_root_stand_anywhere) {
    EXPECT_TRUE(request({"list", "--json"}).json);
    EXPECT_TRUE(request({"--json", "list"}).json);
    EXPECT_EQ("/mnt", request({"list", "--root", "/mnt"}).root);
    EXPECT_EQ("/mnt", request({"--root", "/mnt", "list"}).root);
    EXPECT_EQ("/", request({"list"}).root);
}

TEST(command_line, root_comes_from_the_environment_and_the_option_wins) {
    setenv("TRAK_ROOT", "/from/env", 1);
    EXPECT_EQ("/from/env", request({"list"}).root);
    EXPECT_EQ("/mnt", request({"list", "--root", "/mnt"}).root);
    unsetenv("TRAK_ROOT");
}

TEST(command_line, wrong_usage_ends_with_one_line_and_status_two) {
    wrong({}, "no command given");
    wrong({"explode"}, "unknown command \"explode\"");
    wrong({"--json", "explode"}, "unknown command \"explode\"");
    wrong({"start"}, "N is required");
    wrong({"start", "x"}, "x");
    wrong({"start", "-1"}, "-1");
    wrong({"start", "4294967296"}, "4294967296");
    wrong({"start", "1", "2"}, "2");
    wrong({"list", "disk"}, "disk");
    wrong({"bitmap", "get", "1", "full"}, "full");
    wrong({"bitmap", "explode", "1", "incr"}, "explode");
    wrong({"bitmap", "merge", "1", "incr"}, "bitmap merge needs --file");
    wrong({"bitmap", "clear", "1", "incr", "--file", "f"}, "bitmap clear takes no --file");
    wrong({"bitmap", "save", "1", "incr", "--file", "f"}, "bitmap save takes no --file");
    wrong({"map", "1", "all"}, "all");
    wrong({"resume", "1", "--valid", "2"}, "valid");
    wrong({"debug", "x"}, "x");
    wrong({"add-filter", "--disk", "d"}, "is required");
    wrong({"add-filter", "--disk", "d", "--extent-size", "64X", "--bmp-dir", "b"},
          "\"64X\" is no size: 4096, 64K and 1M are");
    wrong({"add-filter", "--disk", "d", "--extent-size", "4G", "--bmp-dir", "b"},
          "\"4G\" is too large: at most 2G");
    wrong({"add-filter", "--disk", "d", "--extent-size", "64K", "--bmp-dir", "b", "--minor", "-1"},
          "minor");
}

TEST(command_line, help_succeeds_and_names_every_command) {
    auto parsed = parse({"--help"});
    auto *early = std::get_if<ctl::Early>(&parsed);
    ASSERT_NE(nullptr, early);
    EXPECT_EQ(0, early->status);
    for (const char *verb :
         {"add-filter", "add-snap", "start", "stop", "delete", "resume", "list", "info", "status",
          "bitmap", "datablock", "test-datablock", "map", "debug", "--root", "--json"})
        EXPECT_NE(std::string::npos, early->text.find(verb)) << verb;
    parsed = parse({"bitmap", "--help"});
    early = std::get_if<ctl::Early>(&parsed);
    ASSERT_NE(nullptr, early);
    EXPECT_EQ(0, early->status);
    EXPECT_NE(std::string::npos, early->text.find("--file"));
    parsed = parse({"--version"});
    early = std::get_if<ctl::Early>(&parsed);
    ASSERT_NE(nullptr, early);
    EXPECT_EQ(0, early->status);
    EXPECT_EQ(0u, early->text.find("trakctl 0"));
}

}  // namespace
