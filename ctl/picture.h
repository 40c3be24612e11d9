// ctl/picture.h: a bitmap as a picture
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ctl {

struct PictureInput {
    const uint8_t *bits;
    uint64_t count;      // bits
    uint64_t unit_size;  // bytes of disk per bit
    uint64_t dev_size;   // bytes of disk
    std::string title;
    std::string marked_word;  // what a set bit means: "changed", "holds data"
};

// How much of each of `cells` equal parts is marked, 0 to 4: 0 only for nothing, 4 only for all, so
// that a single marked extent is seen. At most `count` cells.
std::vector<int> shades(const uint8_t *bits, uint64_t count, uint64_t cells);

// Blocks for a terminal of `columns`, at most 16 lines, with a title and a legend. UTF-8 shades, or
// ASCII ones.
std::string terminal_picture(const PictureInput &input, unsigned columns, bool utf8);

// A whole SVG file: a grid of at most 64 columns and 64 lines, title and legend.
std::string svg_picture(const PictureInput &input);

}  // namespace ctl
