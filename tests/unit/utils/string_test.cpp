// tests/unit/utils/string_test.cpp: bounded copies and lengths
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "driver/utils/string.h"

namespace {

TEST(string, length_is_counted_up_to_the_end_or_the_limit) {
    EXPECT_EQ(trak_strlen(""), 0u);
    EXPECT_EQ(trak_strlen("trak"), 4u);
    EXPECT_EQ(trak_strnlen("trak", 10), 4u);
    EXPECT_EQ(trak_strnlen("trak", 4), 4u);
    EXPECT_EQ(trak_strnlen("trak", 3), 3u);
    EXPECT_EQ(trak_strnlen("trak", 0), 0u);
}

TEST(string, comparison_has_the_sign_of_the_first_difference) {
    EXPECT_EQ(trak_strcmp("", ""), 0);
    EXPECT_EQ(trak_strcmp("minor", "minor"), 0);
    EXPECT_LT(trak_strcmp("minor", "minors"), 0);
    EXPECT_GT(trak_strcmp("minors", "minor"), 0);
    EXPECT_LT(trak_strcmp("a", "b"), 0);
    EXPECT_GT(trak_strcmp("\xff", "a"), 0);
}

TEST(string, last_occurrence_of_a_character_is_found) {
    char path[] = "/a/b/c";
    EXPECT_EQ(trak_strrchr(path, '/'), path + 4);
    EXPECT_EQ(trak_strrchr(path, 'a'), path + 1);
    EXPECT_EQ(trak_strrchr(path, 'x'), nullptr);
    char empty[] = "";
    EXPECT_EQ(trak_strrchr(empty, '/'), nullptr);
}

TEST(string, part_is_found_anywhere) {
    EXPECT_TRUE(trak_str_contains("abc", ""));
    EXPECT_TRUE(trak_str_contains("", ""));
    EXPECT_TRUE(trak_str_contains("abc", "abc"));
    EXPECT_TRUE(trak_str_contains("aab", "ab"));
    EXPECT_TRUE(trak_str_contains("abc", "c"));
    EXPECT_FALSE(trak_str_contains("abc", "abcd"));
    EXPECT_FALSE(trak_str_contains("", "a"));
    EXPECT_FALSE(trak_str_contains("abab", "abb"));
}

// The copy into a field of its very size on the heap, so that a sanitizer sees who writes beyond it.
std::string copied(const std::string &from, std::size_t size) {
    auto field = std::make_unique<char[]>(size);
    for (std::size_t i = 0; i < size; ++i)
        field[i] = 'x';
    trak_strncpy0(field.get(), from.c_str(), size);
    return std::string(field.get(), size);
}

TEST(string, bounded_copy_fills_the_field_with_zeroes) {
    EXPECT_EQ(copied("ab", 5), std::string("ab\0\0\0", 5));
    EXPECT_EQ(copied("", 3), std::string("\0\0\0", 3));
}

TEST(string, bounded_copy_keeps_the_last_byte_zero) {
    EXPECT_EQ(copied("abcd", 5), std::string("abcd\0", 5));
    EXPECT_EQ(copied("abcde", 5), std::string("abcd\0", 5));
    EXPECT_EQ(copied(std::string(100, 'u'), 39), std::string(38, 'u') + std::string(1, '\0'));
    EXPECT_EQ(copied("a", 1), std::string(1, '\0'));
}

TEST(string, bounded_copy_needs_no_terminator_within_the_size) {
    auto from = std::make_unique<char[]>(4);
    for (int i = 0; i < 4; ++i)
        from[static_cast<std::size_t>(i)] = 'y';
    char to[5];
    trak_strncpy0(to, from.get(), 5);
    EXPECT_STREQ(to, "yyyy");
}

}  // namespace
