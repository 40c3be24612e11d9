// tests/unit/ctl/conf_test.cpp: the configuration's files: what is taken, what is refused and where
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/app.h"
#include "ctl/conf.h"
#include "tests/unit/lib/fake_driver.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <random>

namespace {

const std::string good = "disk = /dev/sdb\nminor = 3\n";

std::string refusal(const std::string &text) {
    try {
        ctl::parse_conf("x.conf", text);
    } catch (const ctl::Failure &failure) {
        return failure.text;
    }
    return "taken";
}

TEST(conf_file, takes_every_key) {
    auto d = ctl::parse_conf("x.conf", "# the data disk\n"
                                       "\n"
                                       "disk = /dev/disk/by-id/a b=c\n"
                                       "  minor=12\n"
                                       "\textent-size =\t1M \n"
                                       "bitmaps = /maps\n"
                                       "name = data-1.x_y\n"
                                       "  # no newline at the end\n"
                                       "wait = 0");
    EXPECT_EQ("x.conf", d.file);
    EXPECT_EQ("/dev/disk/by-id/a b=c", d.disk);
    EXPECT_EQ(12u, d.minor);
    EXPECT_EQ(1u << 20, d.extent_size);
    EXPECT_EQ("/maps", d.bitmaps);
    EXPECT_EQ("data-1.x_y", d.name);
    EXPECT_EQ(0u, d.wait_seconds);
}

TEST(conf_file, disk_and_minor_suffice) {
    auto d = ctl::parse_conf("x.conf", good);
    EXPECT_EQ(65536u, d.extent_size);
    EXPECT_EQ("/var/lib/trak", d.bitmaps);
    EXPECT_EQ("", d.name);
    EXPECT_EQ(30u, d.wait_seconds);
}

TEST(conf_file, refusals_name_the_line_and_what_would_be_right) {
    EXPECT_EQ("x.conf: no \"disk\" is given", refusal(""));
    EXPECT_EQ("x.conf: no \"minor\" is given", refusal("disk = /d\n"));
    EXPECT_EQ("x.conf:3: \"nonsense\" is no setting: \"KEY = VALUE\" is",
              refusal(good + "nonsense\n"));
    EXPECT_EQ("x.conf:3: \"Disk\" is no key: disk, minor, extent-size, bitmaps, name and wait are",
              refusal(good + "Disk = /dev/sdc\n"));
    EXPECT_EQ("x.conf:4: \"minor\" stands in line 2 already", refusal(good + "\nminor = 3\n"));
    EXPECT_EQ("x.conf:3: \"name\" has no value: leave the line out for the default",
              refusal(good + "name =  \n"));
    EXPECT_EQ("x.conf:1: the line holds a control character: is this a text file with plain line "
              "ends?",
              refusal("disk = /dev/sdb\r\nminor = 3\r\n"));
    EXPECT_EQ("x.conf:1: \"sdb\" does not begin with a slash: give the whole path",
              refusal("disk = sdb\n"));
    EXPECT_EQ("x.conf:1: the path is too long: at most 1023 bytes",
              refusal("disk = /" + std::string(1023, 'd')));
    EXPECT_EQ("x.conf:3: the name trak4 is the one that the driver gives to another minor: choose "
              "another",
              refusal(good + "name = trak4\n"));
    EXPECT_EQ("taken", refusal(good + "name = trak3\n"));
    EXPECT_EQ("taken", refusal("minor = 1\ndisk = /" + std::string(1022, 'd')));
}

TEST(conf_file, values_out_of_their_range_are_refused) {
    for (const char *value : {"-1", "+1", "1.5", "0x3", "three", "3 # comment"})
        EXPECT_EQ(std::string("x.conf:1: \"") + value + "\" is no minor number: a whole number is",
                  refusal(std::string("minor = ") + value));
    EXPECT_EQ("x.conf:1: 2147483648 is too large: the minor number is at most 2147483647",
              refusal("minor = 2147483648"));
    EXPECT_EQ("x.conf:1: 99999999999999999999999 is too large: the number of seconds is at most "
              "3600",
              refusal("wait = 99999999999999999999999"));
    for (const char *value : {"2048", "5K", "4G", "0"})
        EXPECT_EQ(std::string("x.conf:1: \"") + value +
                      "\" is no extent size: a power of two from 4K to 2G is",
                  refusal(std::string("extent-size = ") + value));
    EXPECT_EQ("x.conf:1: \"64KB\" is no size: 4096, 64K and 1M are", refusal("extent-size = 64KB"));
    for (const char *value : {"a/b", "a b", "..", ".x", "\xc3\xa4"})
        EXPECT_EQ(0u, refusal(std::string("name = ") + value).find("x.conf:1: \"")) << value;
    EXPECT_EQ("x.conf:1: the name is too long: at most 127 bytes",
              refusal("name = " + std::string(128, 'n')));
    EXPECT_EQ("x.conf:1: the line holds a control character: is this a text file with plain line "
              "ends?",
              refusal(std::string("minor = 3\0", 10)));
}

TEST(conf_file, any_bytes_are_taken_or_refused_with_one_sentence) {
    std::mt19937 random(7);
    const std::string parts[] = {"disk",
                                 "minor",
                                 "=",
                                 " ",
                                 "\n",
                                 "/",
                                 "3",
                                 "64K",
                                 "#",
                                 "wait",
                                 std::string(1, '\0'),
                                 "\xff",
                                 "name",
                                 "extent-size",
                                 "\r",
                                 "~"};
    int taken = 0;
    for (int round = 0; round < 20000; round++) {
        std::string text = round % 4 == 0 ? good : "";
        for (unsigned n = random() % 12; n > 0; n--)
            text += parts[random() % std::size(parts)];
        std::string answer = refusal(text);
        taken += answer == "taken";
        ASSERT_TRUE(answer == "taken" || answer.compare(0, 6, "x.conf") == 0) << answer;
        ASSERT_EQ(std::string::npos, answer.find('\n')) << answer;
    }
    EXPECT_GT(taken, 100);
    EXPECT_LT(taken, 19000);
}

struct conf_folder : testing::Test {
    fake::TempDir dir;
    void put(const std::string &name, const std::string &text) {
        std::ofstream(dir.path(name)) << text;
    }
    std::vector<uint32_t> minors(const ctl::Conf &conf) {
        std::vector<uint32_t> all;
        for (const auto &d : conf.disks)
            all.push_back(d.minor);
        return all;
    }
};

TEST_F(conf_folder, is_read_in_the_order_of_its_names) {
    put("20-b.conf", "disk = /b\nminor = 1\n");
    put("10-z.conf", "disk = /z\nminor = 2\n");
    put("a.conf", "disk = /a\nminor = 0\n");
    put("B.conf", "disk = /B\nminor = 7\n");
    for (const char *other : {".hidden.conf", "old.conf~", "old.conf.dpkg-old", "README", ".conf"})
        put(other, "rubbish");
    auto conf = ctl::read_conf(dir.path());
    EXPECT_EQ((std::vector<uint32_t>{2, 1, 7, 0}), minors(conf));
    EXPECT_EQ(std::vector<std::string>{}, conf.faults);
    EXPECT_EQ(dir.path("10-z.conf"), conf.disks[0].file);
}

TEST_F(conf_folder, one_wrong_file_leaves_the_others) {
    put("1.conf", "disk = /a\nminor = x\n");
    put("2.conf", "disk = /b\nminor = 2\n");
    put("3.conf", std::string(70000, '#'));
    std::filesystem::create_directory(dir.path("4.conf"));
    ASSERT_EQ(0, mkfifo(dir.path("5.conf").c_str(), 0600));
    std::filesystem::create_symlink("/nowhere", dir.path("6.conf"));
    auto conf = ctl::read_conf(dir.path());
    EXPECT_EQ((std::vector<uint32_t>{2}), minors(conf));
    EXPECT_EQ((std::vector<std::string>{
                  dir.path("1.conf") + ":2: \"x\" is no minor number: a whole number is",
                  dir.path("3.conf") + ": is too long: at most 65536 bytes",
                  dir.path("4.conf") + ": is no regular file",
                  dir.path("5.conf") + ": is no regular file",
                  dir.path("6.conf") + ": can't be read: No such file or directory"}),
              conf.faults);
}

TEST_F(conf_folder, what_two_files_claim_stays_with_the_first) {
    put("1.conf", "disk = /a\nminor = 1\nname = one\n");
    put("2.conf", "disk = /b\nminor = 1\n");
    put("3.conf", "disk = /a\nminor = 3\n");
    put("4.conf", "disk = /d\nminor = 4\nname = one\n");
    put("5.conf", "disk = /e\nminor = 5\n");
    auto conf = ctl::read_conf(dir.path());
    std::string already = " is that of " + dir.path("1.conf") + " already";
    EXPECT_EQ((std::vector<uint32_t>{1, 5}), minors(conf));
    EXPECT_EQ((std::vector<std::string>{dir.path("2.conf") + ": the minor 1" + already,
                                        dir.path("3.conf") + ": the disk /a" + already,
                                        dir.path("4.conf") + ": the name one" + already}),
              conf.faults);
}

TEST_F(conf_folder, may_be_one_file_and_must_be_there) {
    put("odd-name", good);
    EXPECT_EQ((std::vector<uint32_t>{3}), minors(ctl::read_conf(dir.path("odd-name"))));
    EXPECT_THROW(ctl::read_conf(dir.path("none")), ctl::Failure);
}

}  // namespace
