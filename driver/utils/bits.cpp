// driver/utils/bits.cpp: operations on whole bit arrays
// SPDX-License-Identifier: GPL-2.0-only
//
// Bit arrays change under the feet of whoever looks at them without the owner's lock. Every access
// here is therefore a relaxed atomic one, a word at a time where the array allows it: a reader sees
// some mixture of old and new bits, and nothing worse.
#include "driver/utils/bits.h"

namespace {

constexpr std::uint64_t word_bytes = sizeof(std::uint64_t);

bool word_aligned(const std::uint8_t *p) {
    return reinterpret_cast<std::uintptr_t>(p) % word_bytes == 0;
}

// True when the first n bits all equal those of `byte`, which is 0x00 or 0xff.
bool all_bits_are(const std::uint8_t *bits, std::uint64_t n, std::uint8_t byte) {
    const std::uint8_t *const end = bits + (n >> 3);
    const std::uint64_t word = byte == 0 ? 0 : ~std::uint64_t{0};
    const std::uint8_t *at = bits;
    while (at < end) {
        if (word_aligned(at) && static_cast<std::uint64_t>(end - at) >= word_bytes) {
            const auto *words = reinterpret_cast<const std::uint64_t *>(at);
            if (__atomic_load_n(words, __ATOMIC_RELAXED) != word)
                return false;
            at += word_bytes;
        } else {
            if (__atomic_load_n(at, __ATOMIC_RELAXED) != byte)
                return false;
            ++at;
        }
    }
    if ((n & 7) == 0)
        return true;
    const unsigned mask = (1u << (n & 7)) - 1;
    return ((__atomic_load_n(end, __ATOMIC_RELAXED) ^ byte) & mask) == 0;
}

// Replaces every piece of the array by change(old piece, the same piece of `from`).
template <typename Change>
void change_all(std::uint8_t *bits, const std::uint8_t *from, std::uint64_t bytes, Change change) {
    std::uint64_t i = 0;
    if (word_aligned(bits)) {
        for (; bytes - i >= word_bytes; i += word_bytes) {
            auto *word = reinterpret_cast<std::uint64_t *>(bits + i);
            std::uint64_t with;
            __builtin_memcpy(&with, from + i, word_bytes);
            __atomic_store_n(word, change(__atomic_load_n(word, __ATOMIC_RELAXED), with),
                             __ATOMIC_RELAXED);
        }
    }
    for (; i < bytes; ++i) {
        const std::uint64_t old = __atomic_load_n(bits + i, __ATOMIC_RELAXED);
        __atomic_store_n(bits + i, static_cast<std::uint8_t>(change(old, from[i])),
                         __ATOMIC_RELAXED);
    }
}

}  // namespace

bool trak_bits_all_clear(const std::uint8_t *bits, std::uint64_t n) {
    return all_bits_are(bits, n, 0x00);
}

bool trak_bits_all_set(const std::uint8_t *bits, std::uint64_t n) {
    return all_bits_are(bits, n, 0xff);
}

void trak_bits_fill(std::uint8_t *bits, std::uint8_t byte, std::uint64_t bytes) {
    const std::uint64_t word = std::uint64_t{0x0101010101010101} * byte;
    std::uint8_t *const end = bits + bytes;
    std::uint8_t *at = bits;
    while (at < end) {
        if (word_aligned(at) && static_cast<std::uint64_t>(end - at) >= word_bytes) {
            __atomic_store_n(reinterpret_cast<std::uint64_t *>(at), word, __ATOMIC_RELAXED);
            at += word_bytes;
        } else {
            __atomic_store_n(at, byte, __ATOMIC_RELAXED);
            ++at;
        }
    }
}

void trak_bits_copy(std::uint8_t *bits, const std::uint8_t *from, std::uint64_t bytes) {
    change_all(bits, from, bytes, [](std::uint64_t, std::uint64_t with) { return with; });
}

void trak_bits_or(std::uint8_t *bits, const std::uint8_t *from, std::uint64_t bytes) {
    change_all(bits, from, bytes, [](std::uint64_t old, std::uint64_t with) { return old | with; });
}

void trak_bits_clear_those(std::uint8_t *bits, const std::uint8_t *from, std::uint64_t bytes) {
    change_all(bits, from, bytes,
               [](std::uint64_t old, std::uint64_t with) { return old & ~with; });
}
