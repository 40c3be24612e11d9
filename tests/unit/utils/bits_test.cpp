// tests/unit/utils/bits_test.cpp: bit arrays, least significant bit first
// SPDX-License-Identifier: GPL-2.0-only
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

#include "driver/utils/bits.h"

namespace {

TEST(bits, lowest_bit_of_the_first_byte_comes_first) {
    std::uint8_t bits[4] = {};
    EXPECT_FALSE(trak_test_and_set_bit(bits, 0));
    EXPECT_FALSE(trak_test_and_set_bit(bits, 11));
    EXPECT_FALSE(trak_test_and_set_bit(bits, 31));
    EXPECT_TRUE(trak_test_and_set_bit(bits, 11));
    const std::uint8_t expected[4] = {0x01, 0x08, 0x00, 0x80};
    EXPECT_EQ(std::memcmp(bits, expected, sizeof bits), 0);
    for (unsigned n = 0; n < 32; ++n)
        EXPECT_EQ(trak_test_bit(bits, n), n == 0 || n == 11 || n == 31) << n;
}

TEST(bits, sizes_in_bytes_round_up) {
    EXPECT_EQ(trak_bitmap_bytes(0), 0);
    EXPECT_EQ(trak_bitmap_bytes(1), 1);
    EXPECT_EQ(trak_bitmap_bytes(8), 1);
    EXPECT_EQ(trak_bitmap_bytes(9), 2);
    EXPECT_EQ(trak_bitmap_bytes(0xffffffff), 0x20000000);
}

TEST(bits, shift_is_log2_of_powers_of_two_and_minus_one_else) {
    EXPECT_EQ(trak_size_shift(0), 0);
    EXPECT_EQ(trak_size_shift(1), 0);
    EXPECT_EQ(trak_size_shift(2), 1);
    EXPECT_EQ(trak_size_shift(3), -1);
    EXPECT_EQ(trak_size_shift(4096), 12);
    EXPECT_EQ(trak_size_shift(12288), -1);
    EXPECT_EQ(trak_size_shift(0x80000000), 31);
    EXPECT_EQ(trak_size_shift(0xffffffff), -1);
}

// An array of `bytes` bytes at every alignment, with a byte before and after that must not count.
class Array {
  public:
    Array(std::size_t offset, std::size_t bytes, std::uint8_t inside, std::uint8_t outside)
        : store(offset + bytes + 17, outside), first(offset + 1), size(bytes) {
        std::memset(bits(), inside, bytes);
    }
    std::uint8_t *bits() { return store.data() + first; }
    bool outside_is(std::uint8_t byte) const {
        for (std::size_t i = 0; i < store.size(); ++i) {
            if ((i < first || i >= first + size) && store[i] != byte)
                return false;
        }
        return true;
    }

  private:
    std::vector<std::uint8_t> store;
    std::size_t first, size;
};

TEST(bits, all_clear_looks_at_the_first_n_bits_and_no_further) {
    for (std::size_t offset = 0; offset < 8; ++offset) {
        for (unsigned n = 0; n <= 200; ++n) {
            Array array(offset, (n + 7) / 8, 0x00, 0xff);
            if (n % 8 != 0)
                array.bits()[n / 8] = static_cast<std::uint8_t>(0xff << (n % 8));
            ASSERT_TRUE(trak_bits_all_clear(array.bits(), n)) << offset << " " << n;
            for (unsigned bit = 0; bit < n; ++bit) {
                array.bits()[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
                ASSERT_FALSE(trak_bits_all_clear(array.bits(), n))
                    << offset << " " << n << " " << bit;
                array.bits()[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
            }
        }
    }
}

TEST(bits, all_set_looks_at_the_first_n_bits_and_no_further) {
    for (std::size_t offset = 0; offset < 8; ++offset) {
        for (unsigned n = 0; n <= 200; ++n) {
            Array array(offset, (n + 7) / 8, 0xff, 0x00);
            if (n % 8 != 0)
                array.bits()[n / 8] = static_cast<std::uint8_t>((1u << (n % 8)) - 1);
            ASSERT_TRUE(trak_bits_all_set(array.bits(), n)) << offset << " " << n;
            for (unsigned bit = 0; bit < n; ++bit) {
                array.bits()[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
                ASSERT_FALSE(trak_bits_all_set(array.bits(), n))
                    << offset << " " << n << " " << bit;
                array.bits()[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
            }
        }
    }
}

TEST(bits, forty_clear_bits_before_set_ones_are_all_clear) {
    std::uint8_t bits[8] = {0, 0, 0, 0, 0, 0xff, 0xff, 0xff};
    EXPECT_TRUE(trak_bits_all_clear(bits, 40));
    EXPECT_FALSE(trak_bits_all_clear(bits, 41));
    EXPECT_FALSE(trak_bits_all_set(bits, 40));
}

TEST(bits, fill_stores_the_byte_everywhere_inside_and_nowhere_else) {
    for (std::size_t offset = 0; offset < 8; ++offset) {
        for (std::size_t bytes = 0; bytes < 40; ++bytes) {
            Array array(offset, bytes, 0x11, 0x22);
            trak_bits_fill(array.bits(), 0xa5, bytes);
            for (std::size_t i = 0; i < bytes; ++i)
                ASSERT_EQ(array.bits()[i], 0xa5);
            ASSERT_TRUE(array.outside_is(0x22));
        }
    }
}

}  // namespace
