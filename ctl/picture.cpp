// ctl/picture.cpp: a bitmap as a picture, in a terminal or as SVG
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/picture.h"

#include "ctl/text.h"
#include "lib/trak.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace ctl {
namespace {

constexpr std::array<const char *, 5> blocks = {"·", "░", "▒", "▓", "█"};
constexpr std::array<const char *, 5> letters = {".", ":", "+", "#", "@"};
constexpr std::array<const char *, 5> colours = {"#e8edf2", "#f6d68a", "#f0a24a", "#dc6b2f",
                                                 "#a8321e"};
constexpr std::array<const char *, 5> meanings = {"none", "to 1/3", "to 2/3", "most", "all"};

bool is_set(const uint8_t *bits, uint64_t n) {
    return (bits[n >> 3] >> (n & 7) & 1) != 0;
}

uint64_t marked_in(const uint8_t *bits, uint64_t from, uint64_t to) {
    uint64_t marked = 0;
    for (; from < to && (from & 7) != 0; from++)
        marked += is_set(bits, from) ? 1 : 0;
    return from < to ? marked + trak_bits_count(bits + (from >> 3), to - from) : marked;
}

std::string summary(const PictureInput &in) {
    uint64_t marked = trak_bits_count(in.bits, in.count);
    return fmt::format("{} of {} extents of {} {} ({})", marked, in.count, size_text(in.unit_size),
                       in.marked_word, percent_text(marked, in.count));
}

std::string escaped(const std::string &text) {
    std::string out;
    for (char c : text) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

// Columns of a picture with as many lines as columns, at most.
uint64_t svg_columns(uint64_t cells) {
    uint64_t columns = 8;
    while (columns < 64 && columns * columns < cells)
        columns *= 2;
    return columns;
}

}  // namespace

std::vector<int> shades(const uint8_t *bits, uint64_t count, uint64_t cells) {
    cells = std::min(cells, count);
    std::vector<int> result(cells);
    // Cell c covers [c * count / cells, (c + 1) * count / cells), computed without overflow.
    uint64_t whole = cells == 0 ? 0 : count / cells, rest = cells == 0 ? 0 : count % cells;
    uint64_t from = 0;
    for (uint64_t c = 0; c < cells; c++) {
        uint64_t to = (c + 1) * whole + (c + 1) * rest / cells;
        uint64_t marked = marked_in(bits, from, to), all = to - from;
        result[c] = marked == 0 ? 0 : marked == all ? 4 : static_cast<int>(1 + marked * 3 / all);
        from = to;
    }
    return result;
}

std::string terminal_picture(const PictureInput &in, unsigned columns, bool utf8) {
    constexpr uint64_t lines = 16;
    const auto &marks = utf8 ? blocks : letters;
    // A power of two wide, so that a cell covers a size that people can name; 12 for the offset.
    uint64_t width = 16;
    while (width * 2 + 12 <= columns && width < 128)
        width *= 2;
    uint64_t per_cell = 1;
    while ((in.count - 1) / per_cell / width >= lines)
        per_cell *= 2;
    uint64_t cells = (in.count - 1) / per_cell + 1;

    std::string text = fmt::format("{}\n{}; one character is {}\n", in.title, summary(in),
                                   size_text(per_cell * in.unit_size));
    for (uint64_t c = 0; c < cells; c++) {
        if (c % width == 0)
            text += fmt::format("{:>10}  ", size_text(c * per_cell * in.unit_size));
        uint64_t from = c * per_cell, to = std::min(in.count, from + per_cell);
        uint64_t marked = marked_in(in.bits, from, to), all = to - from;
        size_t shade = marked == 0 ? 0 : marked == all ? 4 : 1 + marked * 3 / all;
        text += marks[shade];
        if (c % width == width - 1 || c + 1 == cells)
            text += "\n";
    }
    text += std::string(12, ' ');
    for (size_t i = 0; i < marks.size(); i++)
        text += fmt::format("{}{} {}", i == 0 ? "" : "  ", marks[i], meanings[i]);
    return text + "\n";
}

std::string svg_picture(const PictureInput &in) {
    constexpr unsigned cell = 12, margin = 20, head = 64;
    std::vector<int> shade = shades(in.bits, in.count, 64 * 64);
    uint64_t columns = svg_columns(shade.size());
    uint64_t lines = (shade.size() + columns - 1) / columns;
    uint64_t width = std::max<uint64_t>(columns * cell, 520) + 2 * margin;
    uint64_t height = head + lines * cell + 56;
    std::string svg =
        fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
                    "viewBox=\"0 0 {0} {1}\" font-family=\"sans-serif\">\n"
                    "<title>{2}</title>\n<desc>{3}</desc>\n"
                    "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n"
                    "<text x=\"{4}\" y=\"28\" font-size=\"16\">{2}</text>\n"
                    "<text x=\"{4}\" y=\"48\" font-size=\"12\" fill=\"#555555\">{3}</text>\n",
                    width, height, escaped(in.title), escaped(summary(in)), margin);
    // Neighbours of one shade in one line are one rectangle: files stay small.
    for (size_t c = 0; c < shade.size();) {
        size_t line_end = std::min<size_t>((c / columns + 1) * columns, shade.size());
        size_t end = c + 1;
        while (end < line_end && shade[end] == shade[c])
            end++;
        svg += fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill=\"{}\"/>\n",
                           margin + c % columns * cell, head + c / columns * cell,
                           (end - c) * cell - 1, cell - 1, colours[static_cast<size_t>(shade[c])]);
        c = end;
    }
    uint64_t y = head + lines * cell + 24;
    for (size_t i = 0; i < colours.size(); i++)
        svg +=
            fmt::format("<rect x=\"{0}\" y=\"{1}\" width=\"11\" height=\"11\" fill=\"{2}\"/>\n"
                        "<text x=\"{3}\" y=\"{4}\" font-size=\"12\">{5}</text>\n",
                        margin + i * 90, y, colours[i], margin + i * 90 + 16, y + 10, meanings[i]);
    return svg + "</svg>\n";
}

}  // namespace ctl
