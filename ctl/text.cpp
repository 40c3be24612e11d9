// ctl/text.cpp: numbers and tables as people read them
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/text.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <fmt/format.h>

namespace ctl {

std::string size_text(uint64_t bytes) {
    static constexpr std::array<const char *, 7> units = {"B",   "KiB", "MiB", "GiB",
                                                          "TiB", "PiB", "EiB"};
    size_t unit = 0;
    auto value = static_cast<double>(bytes);
    // 1023.5 and more would round to four digits.
    while (unit + 1 < units.size() && value >= 1023.5) {
        value /= 1024;
        unit++;
    }
    std::string number =
        unit == 0 || value >= 99.95 ? fmt::format("{:.0f}", value) : fmt::format("{:.1f}", value);
    if (number.size() > 2 && number.compare(number.size() - 2, 2, ".0") == 0)
        number.erase(number.size() - 2);
    return number + " " + units[unit];
}

std::string percent_text(uint64_t part, uint64_t whole) {
    if (part == 0 || whole == 0)
        return "0%";
    if (part >= whole)
        return "100%";
    double percent = static_cast<double>(part) * 100 / static_cast<double>(whole);
    if (percent < 0.01)
        return "<0.01%";
    if (percent < 0.995)
        return fmt::format("{:.2f}%", percent);
    if (percent > 99.9)
        return ">99.9%";
    return fmt::format("{:.1f}%", percent);
}

namespace {
// Terminal columns of UTF-8 text: code points, which is right for what is printed here.
size_t width(const std::string &text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}
}  // namespace

std::string table_text(const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> widths;
    for (const auto &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], width(row[i]));
    }
    std::string text;
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++)
            line += row[i] + std::string(widths[i] - width(row[i]) + 2, ' ');
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

std::string field_bytes(const char *field, size_t size) {
    return std::string(field, strnlen(field, size));
}

std::string printable(std::string text) {
    // A control character in a path must not act on the terminal or break a line.
    for (char &c : text)
        if (static_cast<unsigned char>(c) < ' ' || c == 127)
            c = '?';
    return text;
}

}  // namespace ctl
