// tests/unit/fsreaders/blkbmp_test.cpp: which chunks hold data, stored, asked and exported
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/fsreaders/blkbmp.h"

#include <algorithm>
#include <array>
#include <functional>

#include "driver/fsreaders/readers.h"
#include "driver/utils/trak_utils.h"
#include "tests/support/driver_world.h"

using namespace driver_world;

namespace {

constexpr std::uint32_t kFragment = 1u << 20;

// The file system of these tests: which chunks are in use, and what goes wrong.
struct FileSystem {
    bool there = true;
    std::function<bool(std::uint32_t)> in_use = [](std::uint32_t) { return true; };
    std::uint32_t fails_at = 0xffffffff;  // the first chunk of the read that fails
    int opened = 0;
    int closed = 0;
    int reads = 0;
};
FileSystem g_fs;

void *probe(os_bdev *, std::int32_t *block_size) {
    EXPECT_EQ(block_size, nullptr);
    if (!g_fs.there)
        return nullptr;
    ++g_fs.opened;
    return &g_fs;
}

void *never(os_bdev *, std::int32_t *) {
    return nullptr;
}

int read(void *context, std::uint32_t first, std::uint32_t chunk_size, std::uint8_t *out,
         std::int32_t count) {
    EXPECT_EQ(context, &g_fs);
    ++g_fs.reads;
    if (chunk_size < 512)
        return -EINVAL;
    if (first == g_fs.fails_at)
        return -EIO;
    std::memset(out, 0, static_cast<std::size_t>((count + 7) / 8));
    for (std::uint32_t k = 0; k < static_cast<std::uint32_t>(count); ++k) {
        if (g_fs.in_use(first + k))
            out[k / 8] = static_cast<std::uint8_t>(out[k / 8] | 1u << (k % 8));
    }
    return 0;
}

int close(void *) {
    ++g_fs.closed;
    return 0;
}

constexpr trak_fs_reader kReaders[] = {{never, read, close}, {probe, read, close}};

// A disk of that many chunks of 512 bytes, with a bitmap of it for fn.
void with_disk(std::uint64_t chunks, const std::function<void(trak_blkbmp &, os_bdev *)> &fn) {
    Machine machine(chunks * 512);
    boot(
        machine,
        [&] {
            os_bdev *bdev = trak_open_bdev(kDisk, OS_FMODE_READ);
            trak_blkbmp bmp;
            EXPECT_EQ(trak_blkbmp_init(&bmp), 0);
            fn(bmp, bdev);
            EXPECT_EQ(g_fs.opened, g_fs.closed);
            EXPECT_EQ(trak_blkbmp_destroy(&bmp), 0);
            EXPECT_EQ(bmp.valid, 0);
            EXPECT_EQ(bmp.frags, nullptr);
            trak_close_bdev(bdev);
        },
        4);
}

std::function<bool(std::uint32_t)> random_chunks(std::uint32_t seed, unsigned run) {
    return [seed, run](std::uint32_t c) {
        std::uint64_t x = (std::uint64_t{c} / run + 1) * 0x9e3779b97f4a7c15u + seed;
        x ^= x >> 31;
        x *= 0xbf58476d1ce4e5b9u;
        return (x >> 40) % 3 == 0;
    };
}

// What a cut of the bits into blocks takes, worked out on its own.
std::size_t cost(const Bytes &bits, std::size_t blk_cnt, std::size_t blk_size) {
    bool zeroes = false, ones = false;
    std::size_t others = 0;
    for (std::size_t i = 0; i < blk_cnt; ++i) {
        const auto from = bits.begin() + static_cast<std::ptrdiff_t>(i * blk_size);
        const auto to = from + static_cast<std::ptrdiff_t>(blk_size);
        if (std::all_of(from, to, [](std::uint8_t b) { return b == 0; }))
            zeroes = true;
        else if (std::all_of(from, to, [](std::uint8_t b) { return b == 0xff; }))
            ones = true;
        else
            others += blk_size;
    }
    return (zeroes + ones) * blk_size + others + blk_cnt * 2;
}

// The cheapest cut, the coarsest of equals: {blocks, block size, cost}.
std::array<std::size_t, 3> cheapest(const Bytes &bits) {
    std::array<std::size_t, 3> best{0, 0, 0x80000};
    for (std::size_t blk_cnt = 1; blk_cnt <= 65536; blk_cnt *= 2) {
        std::size_t blk_size = 1;
        while (blk_size < (bits.size() + blk_cnt - 1) / blk_cnt)
            blk_size *= 2;
        if (blk_size < 4)
            break;
        Bytes padded = bits;
        padded.resize(std::max(bits.size(), blk_cnt * blk_size), 0xff);
        const std::size_t now = cost(padded, blk_cnt, blk_size);
        if (now < best[2])
            best = {blk_cnt, blk_size, now};
    }
    return best;
}

Bytes bits_of(std::uint32_t first, std::uint32_t count) {
    Bytes bits((count + 7) / 8);
    for (std::uint32_t k = 0; k < count; ++k) {
        if (g_fs.in_use(first + k))
            bits[k / 8] = static_cast<std::uint8_t>(bits[k / 8] | 1u << (k % 8));
    }
    return bits;
}

}  // namespace

// Each test has a file system of its own.
class blkbmp : public ::testing::Test {
  protected:
    blkbmp() { g_fs = FileSystem{}; }
};

const trak_fs_reader *const trak_fs_readers = kReaders;
const int trak_fs_reader_count = 2;

TEST_F(blkbmp, empty_fragment_takes_a_kilobyte_and_holds_no_data) {
    g_fs.in_use = [](std::uint32_t) { return false; };
    with_disk(kFragment, [](trak_blkbmp &bmp, os_bdev *bdev) {
        EXPECT_EQ(trak_blkbmp_read(&bmp, bdev, 512), 1024);
        EXPECT_EQ(bmp.valid, 1);
        EXPECT_EQ(bmp.frag_cnt, 1);
        EXPECT_EQ(bmp.frags[0].blk_cnt, 256u);
        EXPECT_EQ(bmp.frags[0].blk_size, 512u);
        EXPECT_EQ(bmp.frags[0].bit_shift, 12u);
        EXPECT_EQ(bmp.frags[0].bit_mask, 4095u);
        EXPECT_EQ(bmp.frags[0].byte_shift, 9u);
        for (std::uint32_t c = 0; c < kFragment; ++c)
            ASSERT_FALSE(trak_blkbmp_holds_data(&bmp, c)) << c;
        const std::string log = whole_log();
        EXPECT_NE(log.find("256 x 512 (131072 bytes) will take 1024 bytes"), std::string::npos);
        EXPECT_NE(log.find("1 x 131072 (131072 bytes) will take 131074 bytes"), std::string::npos);
        EXPECT_NE(log.find("Block Bitmap Fragment: 131072B => 1024B (256 x 512) (100%)"),
                  std::string::npos);
    });
}

TEST_F(blkbmp, every_chunk_of_every_fragment_is_told_as_the_file_system_has_it) {
    for (const unsigned run : {1u, 40u, 5000u}) {
        g_fs = FileSystem{};
        g_fs.in_use = random_chunks(run, run);
        const std::uint32_t chunks = 2 * kFragment + 12345;
        with_disk(chunks, [chunks](trak_blkbmp &bmp, os_bdev *bdev) {
            const int rc = trak_blkbmp_read(&bmp, bdev, 512);
            EXPECT_GE(rc, 0);
            EXPECT_EQ(bmp.chunk_cnt, chunks);
            EXPECT_EQ(bmp.frag_cnt, 3);
            EXPECT_EQ(g_fs.reads, 3);
            for (std::uint32_t c = 0; c < chunks; ++c)
                ASSERT_EQ(trak_blkbmp_holds_data(&bmp, c), g_fs.in_use(c)) << c;
            for (std::uint32_t f = 0; f < 3; ++f) {
                const auto best = cheapest(bits_of(f * kFragment, f < 2 ? kFragment : 12345));
                EXPECT_EQ(bmp.frags[f].blk_cnt, best[0]) << f;
                EXPECT_EQ(bmp.frags[f].blk_size, best[1]) << f;
                if (f == 2) {
                    EXPECT_EQ(rc, static_cast<int>(best[2]));
                }
            }
        });
    }
}

TEST_F(blkbmp, chunks_past_the_end_hold_data) {
    g_fs.in_use = [](std::uint32_t) { return false; };
    for (const std::uint32_t chunks : {1u, 5u, 8u, 17u, 100u, 1003u, 70000u}) {
        with_disk(chunks, [chunks](trak_blkbmp &bmp, os_bdev *bdev) {
            ASSERT_GE(trak_blkbmp_read(&bmp, bdev, 512), 0);
            for (std::uint32_t c = 0; c < chunks; ++c)
                ASSERT_FALSE(trak_blkbmp_holds_data(&bmp, c)) << c;
            for (const std::uint32_t c : {chunks, chunks + 1, 0x7fffffffu, 0xffffffffu})
                EXPECT_TRUE(trak_blkbmp_holds_data(&bmp, c)) << c;
            // The bits of the last block that no chunk has count as set.
            const sa &frag = bmp.frags[0];
            const std::uint32_t bits = frag.blk_cnt * frag.blk_size * 8;
            bmp.chunk_cnt = bits;
            for (std::uint32_t c = (chunks + 7) & ~7u; c < bits; ++c)
                EXPECT_TRUE(trak_blkbmp_holds_data(&bmp, c)) << c;
        });
    }
}

TEST_F(blkbmp, one_that_was_not_built_holds_data_everywhere) {
    with_disk(100, [](trak_blkbmp &bmp, os_bdev *) {
        EXPECT_TRUE(trak_blkbmp_holds_data(&bmp, 0));
        EXPECT_TRUE(trak_blkbmp_holds_data(&bmp, 99));
    });
}

TEST_F(blkbmp, unknown_file_system_leaves_it_unbuilt) {
    g_fs.there = false;
    with_disk(100, [](trak_blkbmp &bmp, os_bdev *bdev) {
        EXPECT_EQ(trak_blkbmp_read(&bmp, bdev, 4096), -EINVAL);
        EXPECT_EQ(bmp.valid, 0);
        EXPECT_TRUE(logged(1, "trak_blkbmp_read(): Cannot recognize file system on hdd(8, 16). "
                              "Datablocks will be disabled"));
    });
}

TEST_F(blkbmp, chunk_size_must_be_a_power_of_two_above_1) {
    with_disk(100, [](trak_blkbmp &bmp, os_bdev *bdev) {
        for (const std::uint32_t size : {0u, 1u, 3u, 12288u}) {
            EXPECT_EQ(trak_blkbmp_read(&bmp, bdev, size), -EINVAL);
            EXPECT_TRUE(logged_error("trak_blkbmp_read(): Chunk size (" + std::to_string(size) +
                                     ") must be a power of 2"));
        }
        EXPECT_EQ(g_fs.reads, 0);
        // 2 is refused by the reader.
        EXPECT_EQ(trak_blkbmp_read(&bmp, bdev, 2), -EINVAL);
        EXPECT_EQ(g_fs.reads, 1);
        EXPECT_EQ(bmp.valid, 0);
    });
}

TEST_F(blkbmp, failure_of_the_reader_ends_the_build) {
    g_fs.fails_at = kFragment;
    with_disk(3 * kFragment, [](trak_blkbmp &bmp, os_bdev *bdev) {
        EXPECT_EQ(trak_blkbmp_read(&bmp, bdev, 512), -EIO);
        EXPECT_EQ(bmp.valid, 0);
        EXPECT_EQ(g_fs.reads, 2);
        EXPECT_TRUE(trak_blkbmp_holds_data(&bmp, 0));
    });
}

TEST_F(blkbmp, missing_memory_ends_the_build_and_leaves_what_destroy_frees) {
    g_fs.in_use = random_chunks(3, 7);
    for (std::uint64_t nth = 1; nth <= 6; ++nth) {
        with_disk(kFragment + 5, [nth](trak_blkbmp &bmp, os_bdev *bdev) {
            sim::fail_nth(sim::Fault::kAlloc, nth);
            EXPECT_EQ(trak_blkbmp_read(&bmp, bdev, 512), -ENOMEM) << nth;
            sim::fail_none();
            EXPECT_EQ(bmp.valid, 0);
            const char *text = nth == 1   ? "trak_blkbmp_read(): Memory allocation failed."
                               : nth == 2 ? "trak_blkbmp_read(): Memory allocation failed"
                                          : "create_sa(): Memory allocation failed.";
            EXPECT_TRUE(logged_error(text)) << nth << whole_log();
        });
    }
}

TEST_F(blkbmp, measurement_counts_shared_blocks_once_and_allocates_nothing) {
    with_disk(8, [](trak_blkbmp &, os_bdev *) {
        Bytes bits(16 * 8);  // 16 blocks of 8 bytes
        std::fill(bits.begin() + 8, bits.begin() + 24, 0xff);
        bits[24] = 1;
        bits[32 + 7] = 0x80;
        const std::uint64_t before = sim::fault_points(sim::Fault::kAlloc);
        EXPECT_EQ(create_sa(nullptr, 16, 8, bits.data(), 1), 4 * 8 + 32);
        EXPECT_EQ(create_sa(nullptr, 0, 8, bits.data(), 1), 0);
        EXPECT_EQ(create_sa(nullptr, -3, 8, bits.data(), 1), -6);
        EXPECT_EQ(sim::fault_points(sim::Fault::kAlloc), before);
        for (const int size : {1, 2, 4, 8, 16, 32})
            EXPECT_EQ(create_sa(nullptr, 128 / size, size, bits.data(), 1),
                      static_cast<int>(cost(bits, static_cast<std::size_t>(128 / size),
                                            static_cast<std::size_t>(size))));
    });
}

TEST_F(blkbmp, blocks_are_numbered_zeroes_first_then_ones_then_the_rest) {
    with_disk(8, [](trak_blkbmp &bmp, os_bdev *) {
        bmp.frags = static_cast<sa *>(os_kzalloc(3 * sizeof(sa), OS_GFP_KERNEL));
        bmp.frag_cnt = 3;
        Bytes bits(6 * 4);
        std::fill(bits.begin(), bits.begin() + 4,
                  0xff);  // ones, zeroes, mixed, ones, mixed, zeroes
        bits[8] = 7;
        std::fill(bits.begin() + 12, bits.begin() + 16, 0xff);
        bits[19] = 9;
        sa &both = bmp.frags[0];
        ASSERT_EQ(create_sa(&both, 6, 4, bits.data(), 0), 4 * 4 + 12);
        EXPECT_EQ(std::vector<int>(both.index, both.index + 6),
                  (std::vector<int>{1, 0, 2, 1, 3, 0}));
        EXPECT_EQ(Bytes(both.data, both.data + 16),
                  (Bytes{0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 7, 0, 0, 0, 0, 0, 0, 9}));
        sa &ones = bmp.frags[1];  // no block of zeroes: the ones are number 0
        ASSERT_EQ(create_sa(&ones, 1, 4, bits.data(), 0), 4 + 2);
        EXPECT_EQ(ones.index[0], 0);
        sa &bytes = bmp.frags[2];
        ASSERT_GT(create_sa(&bytes, 24, 1, bits.data(), 0), 0);
        EXPECT_EQ(bytes.bit_shift, 3u);
        EXPECT_EQ(bytes.byte_shift, 0u);
        EXPECT_EQ(bytes.bit_mask, 7u);
    });
}

TEST_F(blkbmp, export_of_one_that_was_not_built_says_that_all_hold_data) {
    with_disk(100, [](trak_blkbmp &bmp, os_bdev *) {
        Bytes out(50, 0);
        EXPECT_EQ(trak_blkbmp_export(&bmp, 1, out.data(), 50), 0);
        EXPECT_EQ(out, Bytes(50, 0xff));
    });
}

TEST_F(blkbmp, export_gives_a_bit_to_every_group_of_chunks) {
    g_fs.in_use = [](std::uint32_t c) { return c == 5 || c == 20; };
    with_disk(21, [](trak_blkbmp &bmp, os_bdev *bdev) {
        ASSERT_GE(trak_blkbmp_read(&bmp, bdev, 512), 0);
        Bytes out(5, 0xaa);
        EXPECT_EQ(trak_blkbmp_export(&bmp, 1, out.data(), 5), 0);
        EXPECT_EQ(out, (Bytes{0x20, 0, 0x10, 0xaa, 0xaa}));
        out = Bytes(5, 0xaa);
        EXPECT_EQ(trak_blkbmp_export(&bmp, 4, out.data(), 5), 0);  // 0000 0100 ... is 0 1 ...
        EXPECT_EQ(out, (Bytes{0x22, 0xaa, 0xaa, 0xaa, 0xaa}));
        out = Bytes(5, 0xaa);
        EXPECT_EQ(trak_blkbmp_export(&bmp, 1000, out.data(), 1), 0);
        EXPECT_EQ(out, (Bytes{1, 0xaa, 0xaa, 0xaa, 0xaa}));
    });
}

TEST_F(blkbmp, export_equals_the_chunks_at_every_ratio) {
    g_fs.in_use = random_chunks(11, 9);
    const std::uint32_t chunks = kFragment + 777;
    with_disk(chunks, [chunks](trak_blkbmp &bmp, os_bdev *bdev) {
        ASSERT_GE(trak_blkbmp_read(&bmp, bdev, 512), 0);
        for (const std::uint32_t ratio : {1u, 2u, 64u, 1024u}) {
            const std::uint32_t groups = (chunks + ratio - 1) / ratio;
            Bytes out((groups + 7) / 8);
            ASSERT_EQ(
                trak_blkbmp_export(&bmp, ratio, out.data(), static_cast<std::uint32_t>(out.size())),
                0);
            for (std::uint32_t g = 0; g < groups; ++g) {
                bool any = false;
                for (std::uint32_t c = g * ratio; c < std::min(chunks, (g + 1) * ratio); ++c)
                    any = any || g_fs.in_use(c);
                ASSERT_EQ(bit(out, g), any) << ratio << " " << g;
            }
        }
    });
}

TEST_F(blkbmp, export_into_no_buffer_or_too_small_a_one_is_refused) {
    with_disk(21, [](trak_blkbmp &bmp, os_bdev *bdev) {
        ASSERT_GE(trak_blkbmp_read(&bmp, bdev, 512), 0);
        EXPECT_EQ(trak_blkbmp_export(&bmp, 1, nullptr, 3), -EINVAL);
        EXPECT_TRUE(logged_error("trak_blkbmp_export(): NULL buffer passed as input"));
        Bytes out(2, 0xaa);
        EXPECT_EQ(trak_blkbmp_export(&bmp, 1, out.data(), 2), -EINVAL);
        EXPECT_TRUE(logged_error("trak_blkbmp_export(): Insufficient buffer size passed as input: "
                                 "should be 3 instead of 2"));
        EXPECT_EQ(out, Bytes(2, 0xaa));
    });
}

TEST_F(blkbmp, empty_disk_is_built_without_a_fragment) {
    with_disk(0, [](trak_blkbmp &bmp, os_bdev *bdev) {
        EXPECT_EQ(trak_blkbmp_read(&bmp, bdev, 512), 0);
        EXPECT_EQ(bmp.valid, 1);
        EXPECT_EQ(bmp.frag_cnt, 0);
        EXPECT_TRUE(trak_blkbmp_holds_data(&bmp, 0));
    });
}
