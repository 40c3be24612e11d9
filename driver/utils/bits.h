// driver/utils/bits.h: bit arrays, least significant bit first
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_UTILS_BITS_H
#define TRAK_UTILS_BITS_H

#include <bit>
#include <cstddef>
#include <cstdint>

// Bit n of an array is bit (n & 7) of byte n >> 3, which is bit (n & 31) of little-endian word n >> 5.

// Sets bit n atomically; true when it was set before.
inline bool trak_test_and_set_bit(std::uint8_t *bits, std::uint64_t n) {
    const auto mask = static_cast<std::uint8_t>(1u << (n & 7));
    return (__atomic_fetch_or(bits + (n >> 3), mask, __ATOMIC_SEQ_CST) & mask) != 0;
}

inline bool trak_test_bit(const std::uint8_t *bits, std::uint64_t n) {
    return (__atomic_load_n(bits + (n >> 3), __ATOMIC_RELAXED) >> (n & 7)) & 1;
}

// Bytes that hold n bits: ((n - 1) >> 3) + 1 with a signed shift, as the system counts them.
inline std::int64_t trak_bitmap_bytes(std::uint64_t n) {
    return (static_cast<std::int64_t>(n - 1) >> 3) + 1;
}

// Not std::has_single_bit or std::popcount: where the machine has no instruction for them, they call
// the compiler's library, which a kernel does not have.
constexpr std::uint32_t trak_bits_in_byte(std::uint32_t byte) {
    std::uint32_t count = 0;
    for (std::uint32_t bit = 0; bit < 8; bit++)
        count += (byte >> bit) & 1;
    return count;
}
constexpr bool trak_is_power_of_two(std::uint64_t size) {
    return size != 0 && (size & (size - 1)) == 0;
}

// log2 of a power of two; -1 for any other size above 1; 0 for 0 and 1.
constexpr std::int32_t trak_size_shift(std::uint32_t size) {
    if (size <= 1)
        return 0;
    return trak_is_power_of_two(size) ? std::countr_zero(size) : -1;
}

// True when the first n bits are all 0 / all 1. Bits beyond n are not looked at.
bool trak_bits_all_clear(const std::uint8_t *bits, std::uint64_t n);
bool trak_bits_all_set(const std::uint8_t *bits, std::uint64_t n);
// Stores `byte` into each of the bytes, in pieces that a reader without the owner's lock may look at.
void trak_bits_fill(std::uint8_t *bits, std::uint8_t byte, std::uint64_t bytes);
// In the same pieces: bits = from, bits |= from, bits &= ~from. The owner's lock keeps other writers out;
// `from` is the caller's own and as aligned as an allocation.
void trak_bits_copy(std::uint8_t *bits, const std::uint8_t *from, std::uint64_t bytes);
void trak_bits_or(std::uint8_t *bits, const std::uint8_t *from, std::uint64_t bytes);
void trak_bits_clear_those(std::uint8_t *bits, const std::uint8_t *from, std::uint64_t bytes);

#endif
