// ctl/text.h: numbers and tables as people read them
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ctl {

// "0 B", "512 B", "64 KiB", "1.5 MiB": three digits at most, powers of 1024.
std::string size_text(uint64_t bytes);

// Part of a whole: "0%", "0.01%", "12.5%", "100%". Never "0%" for something or "100%" for less
// than all: "<0.01%" and ">99.9%" then.
std::string percent_text(uint64_t part, uint64_t whole);

// Rows of cells with their columns aligned, two blanks between; no blanks at line ends.
std::string table_text(const std::vector<std::vector<std::string>> &rows);

// A fixed-size field of a record, whether it is terminated or not: as it is, for JSON and for file
// names; and for people, with control characters replaced.
std::string field_bytes(const char *field, size_t size);
std::string printable(std::string text);
template <size_t N> std::string field_bytes(const char (&field)[N]) {
    return field_bytes(field, N);
}
template <size_t N> std::string field_text(const char (&field)[N]) {
    return printable(field_bytes(field, N));
}

}  // namespace ctl
