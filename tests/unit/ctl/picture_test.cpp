// tests/unit/ctl/picture_test.cpp: pictures show every marked extent
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/picture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>

namespace {

struct Picture {
    std::vector<uint8_t> bits;
    uint64_t count;
    explicit Picture(uint64_t n) : bits((n + 7) / 8), count(n) {}
    Picture &mark(uint64_t from, uint64_t to) {
        for (; from < std::min(to, count); from++)
            bits[from / 8] |= static_cast<uint8_t>(1u << (from % 8));
        return *this;
    }
    ctl::PictureInput input(const std::string &title = "title") const {
        return {bits.data(), count, 65536, count * 65536, title, "changed"};
    }
};

size_t count_of(const std::string &text, const std::string &part) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        n++;
    return n;
}

TEST(shades, a_single_marked_extent_is_seen_and_a_single_clear_one_too) {
    Picture one(1000000);
    one.mark(777777, 777778);
    auto shades = ctl::shades(one.bits.data(), one.count, 100);
    for (size_t i = 0; i < shades.size(); i++)
        EXPECT_EQ(i == 77 ? 1 : 0, shades[i]) << i;
    Picture most(1000000);
    most.mark(0, 500000).mark(500001, 1000000);
    shades = ctl::shades(most.bits.data(), most.count, 100);
    for (size_t i = 0; i < shades.size(); i++)
        EXPECT_EQ(i == 50 ? 3 : 4, shades[i]) << i;
}

TEST(shades, parts_cover_everything_once_whatever_the_numbers) {
    std::mt19937 random(3);
    for (int round = 0; round < 300; round++) {
        uint64_t count = 1 + random() % 500, cells = 1 + random() % 200;
        uint64_t at = random() % count;
        Picture picture(count);
        picture.mark(at, at + 1);
        auto shades = ctl::shades(picture.bits.data(), count, cells);
        ASSERT_EQ(std::min(count, cells), shades.size());
        ASSERT_EQ(1, std::count_if(shades.begin(), shades.end(), [](int s) { return s > 0; }));
        picture.mark(0, count);
        for (int s : ctl::shades(picture.bits.data(), count, cells))
            ASSERT_EQ(4, s);
    }
}

TEST(terminal_picture, is_what_it_was_drawn_to_be) {
    Picture picture(40);
    picture.mark(0, 2).mark(17, 18);
    EXPECT_EQ("title\n"
              "3 of 40 extents of 64 KiB changed (7.5%); one character is 64 KiB\n"
              "       0 B  @@..............\n"
              "     1 MiB  .@..............\n"
              "     2 MiB  ........\n"
              "            . none  : to 1/3  + to 2/3  # most  @ all\n",
              ctl::terminal_picture(picture.input(), 30, false));
    EXPECT_NE(std::string::npos,
              ctl::terminal_picture(picture.input(), 30, true).find("██··············"));
}

TEST(terminal_picture, keeps_to_its_lines_and_columns) {
    for (uint64_t count : {1ull, 100ull, 4096ull, 100000ull, 3000001ull}) {
        for (unsigned columns : {20u, 80u, 200u}) {
            Picture picture(count);
            picture.mark(count - 1, count);
            std::string text = ctl::terminal_picture(picture.input(), columns, false);
            std::istringstream lines(text);
            std::string line;
            size_t grid = 0, marked = 0;
            while (std::getline(lines, line)) {
                if (line.size() > 12 && line.substr(9, 3) == "B  ") {
                    grid++;
                    EXPECT_LE(line.size(), std::max(columns, 28u)) << line;
                    marked += static_cast<size_t>(std::count_if(line.begin() + 12, line.end(),
                                                                [](char c) { return c != '.'; }));
                }
            }
            EXPECT_GE(grid, 1u);
            EXPECT_LE(grid, 16u);
            EXPECT_EQ(1u, marked) << text;
        }
    }
}

TEST(svg_picture, escapes_text_and_draws_every_shade) {
    Picture picture(100);
    picture.mark(10, 20);
    std::string svg = ctl::svg_picture(picture.input("a < b & \"c\""));
    EXPECT_EQ(0u, svg.find("<svg xmlns=\"http://www.w3.org/2000/svg\""));
    EXPECT_NE(std::string::npos, svg.find("<title>a &lt; b &amp; &quot;c&quot;</title>"));
    EXPECT_NE(std::string::npos, svg.find("10 of 100 extents of 64 KiB changed (10.0%)"));
    EXPECT_EQ(svg.size() - 7, svg.find("</svg>\n"));
    // 16 columns: extents 10 to 15 and 16 to 19 are one rectangle each, and one is in the legend.
    EXPECT_EQ(3u, count_of(svg, "fill=\"#a8321e\""));
    EXPECT_NE(std::string::npos, svg.find("<rect x=\"140\" y=\"64\" width=\"71\" height=\"11\" "
                                          "fill=\"#a8321e\"/>"));
}

TEST(svg_picture, of_a_large_disk_stays_small) {
    Picture picture(3000001);
    for (uint64_t i = 0; i < picture.count; i += 2000)
        picture.mark(i, i + 300);
    std::string svg = ctl::svg_picture(picture.input());
    EXPECT_LT(svg.size(), 500000u);
    EXPECT_LE(count_of(svg, "<rect"), 64u * 64u + 6u);
}

}  // namespace
