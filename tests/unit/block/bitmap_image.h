// tests/unit/block/bitmap_image.h: bitmap files as bytes, made and read independently of the driver
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_UNIT_BLOCK_BITMAP_IMAGE_H
#define TRAK_TESTS_UNIT_BLOCK_BITMAP_IMAGE_H

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "tests/support/driver_world.h"

namespace driver_world {

// Bit by bit, without a table and without the final complement.
inline std::uint32_t crc_register(const Bytes &bytes) {
    std::uint32_t reg = 0xffffffff;
    for (const std::uint8_t byte : bytes) {
        reg ^= byte;
        for (int i = 0; i < 8; ++i)
            reg = (reg & 1) != 0 ? (reg >> 1) ^ 0xedb88320u : reg >> 1;
    }
    return reg;
}

inline void append_le32(Bytes &to, std::uint32_t value) {
    for (int i = 0; i < 4; ++i)
        to.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// A file with these contents, as a save writes it.
inline Bytes bitmap_image(const Bytes &bits) {
    constexpr std::string_view magic = "TRAKBMP";
    Bytes image(magic.begin(), magic.end());
    image.push_back(0);
    append_le32(image, static_cast<std::uint32_t>(bits.size()));
    append_le32(image, crc_register(bits));
    image.insert(image.end(), bits.begin(), bits.end());
    return image;
}

// The header that a flag write leaves.
inline Bytes dirty_image() {
    return {'T', 'R', 'A', 'K', 'B', 'M', 'P', 1};
}

inline Bytes all_ones(std::size_t size) {
    return Bytes(size, 0xff);
}

// True when every bit of `part` is in `whole`.
inline bool covers(const Bytes &whole, const Bytes &part) {
    for (std::size_t i = 0; i < part.size(); ++i) {
        if ((part[i] & ~whole.at(i)) != 0)
            return false;
    }
    return true;
}

}  // namespace driver_world

#endif
