// agent/checksum.h: XXH3 of 128 bits over blocks, texts and whole files
// SPDX-License-Identifier: GPL-2.0-only
//
// These find what accident changes: a write that no map tells of, a flipped byte. They are no proof
// against someone who wants two contents to look alike.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace agent {

// The canonical (big-endian) bytes; all zero never is the hash of a block: it stands for "none".
using Hash = std::array<uint8_t, 16>;
inline constexpr Hash no_hash = {};

Hash hash_block(const void *data, size_t size, uint64_t seed);
std::string checksum_text(const std::string &text);
std::string checksum_bytes(const void *data, size_t size);

// Of a file: pages of 64 KiB that hold something, each with its number, and the length. Holes cost
// nothing and count as the zeros that they are. `turn` is called between pages (it may throw).
std::string checksum_file(const std::string &path, void (*turn)());

bool is_zero(const void *data, size_t size);

}  // namespace agent
