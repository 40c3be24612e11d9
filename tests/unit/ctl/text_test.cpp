// tests/unit/ctl/text_test.cpp: numbers and tables as people read them
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/json.h"
#include "ctl/text.h"

#include <gtest/gtest.h>

namespace {

TEST(text, sizes_have_three_digits_at_most) {
    EXPECT_EQ("0 B", ctl::size_text(0));
    EXPECT_EQ("1023 B", ctl::size_text(1023));
    EXPECT_EQ("1 KiB", ctl::size_text(1024));
    EXPECT_EQ("1.5 KiB", ctl::size_text(1536));
    EXPECT_EQ("64 KiB", ctl::size_text(65536));
    EXPECT_EQ("100 KiB", ctl::size_text(102350));
    EXPECT_EQ("512 MiB", ctl::size_text(512ull << 20));
    EXPECT_EQ("1 GiB", ctl::size_text((1ull << 30) - 1));
    EXPECT_EQ("16 EiB", ctl::size_text(UINT64_MAX));
}

TEST(text, percentages_never_claim_nothing_or_all) {
    EXPECT_EQ("0%", ctl::percent_text(0, 10));
    EXPECT_EQ("100%", ctl::percent_text(10, 10));
    EXPECT_EQ("<0.01%", ctl::percent_text(1, 1000000));
    EXPECT_EQ("0.10%", ctl::percent_text(1, 1000));
    EXPECT_EQ("12.5%", ctl::percent_text(1, 8));
    EXPECT_EQ(">99.9%", ctl::percent_text(999999, 1000000));
    EXPECT_EQ("0%", ctl::percent_text(0, 0));
}

TEST(text, tables_align_by_characters_not_bytes) {
    EXPECT_EQ("A     B\n··x   1\nlong\n",
              ctl::table_text({{"A", "B"}, {"··x", "1"}, {"long", ""}}));
    EXPECT_EQ("", ctl::table_text({}));
}

TEST(text, fields_end_at_their_terminator_or_their_size) {
    const char whole[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ("abcd", ctl::field_bytes(whole));
    EXPECT_EQ("ab", ctl::field_bytes("ab\0cd"));
    EXPECT_EQ("a?b?", ctl::field_text("a\x1b"
                                      "b\x7f"));
}

TEST(json, keeps_the_order_and_escapes) {
    auto value = ctl::Json::object();
    value.number("z", 18446744073709551615ull).integer("a", -1).flag("f", true).null("n");
    value.text("t", "\"\n");
    auto list = ctl::Json::array();
    list.add_number(1).add(value);
    EXPECT_EQ("[1,{\"z\":18446744073709551615,\"a\":-1,\"f\":true,\"n\":null,\"t\":\"\\\"\\n\"}]\n",
              list.line());
}

}  // namespace
