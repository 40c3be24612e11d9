// tests/unit/readers/reader_world.h: a file-system image on the simulated disk and a reader on it
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_UNIT_READERS_READER_WORLD_H
#define TRAK_TESTS_UNIT_READERS_READER_WORLD_H

#include <functional>
#include <string>

#include "driver/fsreaders/ext2_reader.h"
#include "driver/fsreaders/readers.h"
#include "driver/fsreaders/reiserfs_reader.h"
#include "driver/fsreaders/xfs_reader.h"
#include "driver/utils/trak_utils.h"
#include "tests/support/driver_world.h"
#include "tests/support/fs_images.h"

namespace reader_world {

using namespace driver_world;
using namespace fs_images;
using sim::Bytes;

inline constexpr trak_fs_reader kExt2{ext2_reader_init, ext2_reader_read, ext2_reader_destroy};
inline constexpr trak_fs_reader kReiser{reiserfs_reader_init, reiserfs_reader_read,
                                        reiserfs_reader_destroy};
inline constexpr trak_fs_reader kXfs{xfs_reader_init, xfs_reader_read, xfs_reader_destroy};

inline void put(Machine &machine, const Pieces &pieces) {
    for (const Piece &piece : pieces)
        machine.disk.write(piece.offset, piece.bytes);
}
inline void patch_le(Machine &machine, std::uint64_t at, std::uint64_t value, int width) {
    Bytes bytes(static_cast<std::size_t>(width));
    put_le(bytes, 0, value, width);
    machine.disk.write(at, bytes);
}
inline void patch_be(Machine &machine, std::uint64_t at, std::uint64_t value, int width) {
    Bytes bytes(static_cast<std::size_t>(width));
    put_be(bytes, 0, value, width);
    machine.disk.write(at, bytes);
}
inline void fail_bytes(Machine &machine, std::uint64_t at, std::uint64_t size) {
    machine.disk.fail_sectors(at / 512, (at + size - 1) / 512, false);
}

// A boot with the disk opened.
inline void on_disk(Machine &machine, const std::function<void(os_bdev *)> &fn, int debug = 3) {
    boot(
        machine,
        [&] {
            os_bdev *bdev = trak_open_bdev(kDisk, OS_FMODE_READ);
            ASSERT_NE(bdev, nullptr);
            fn(bdev);
            trak_close_bdev(bdev);
        },
        debug);
}

// The same with a reader's context, which must be made.
inline void on_reader(Machine &machine, const trak_fs_reader &reader,
                      const std::function<void(void *)> &fn, int debug = 3) {
    on_disk(
        machine,
        [&](os_bdev *bdev) {
            void *context = reader.init(bdev, nullptr);
            ASSERT_NE(context, nullptr) << whole_log();
            fn(context);
            EXPECT_EQ(reader.destroy(context), 0);
        },
        debug);
}

// The reader must not take the disk, and says this as an error.
inline void expect_refused(Machine &machine, const trak_fs_reader &reader,
                           const std::string &error) {
    on_disk(machine, [&](os_bdev *bdev) {
        EXPECT_EQ(reader.init(bdev, nullptr), nullptr);
        EXPECT_TRUE(logged_error(error)) << error << "\n" << whole_log();
    });
}

// The message comes at this level and not below it.
inline void expect_level(Machine &machine, int level, const std::string &text,
                         const std::function<void(os_bdev *)> &fn) {
    for (int debug = level - 1; debug <= level; ++debug)
        on_disk(
            machine,
            [&](os_bdev *bdev) {
                fn(bdev);
                EXPECT_EQ(logged(level, text), debug == level) << text << "\n" << whole_log();
            },
            debug);
}

// `count` chunks from `first` on, in a buffer of the very size, filled before.
inline Bytes read_map(const trak_fs_reader &reader, void *context, std::uint32_t first,
                      std::uint32_t chunk_size, std::int32_t count, int *rc = nullptr) {
    Bytes bits((static_cast<std::size_t>(count) + 7) / 8, 0xff);
    const int result = reader.read(context, first, chunk_size, bits.data(), count);
    if (rc != nullptr)
        *rc = result;
    else
        EXPECT_EQ(result, 0) << whole_log();
    return bits;
}

// holds(first block, blocks) tells what each chunk must be; at every chunk size up to 2 MiB, in one
// read and in portions.
inline void expect_map(const trak_fs_reader &reader, void *context, std::uint32_t block_size,
                       std::uint64_t blocks,
                       const std::function<bool(std::uint64_t, std::uint64_t)> &holds) {
    for (std::uint32_t size = block_size; size <= 0x200000; size *= 2) {
        const std::uint32_t ratio = size / block_size;
        const auto chunks = static_cast<std::uint32_t>((blocks + ratio - 1) / ratio);
        std::vector<bool> should(chunks);
        for (std::uint32_t c = 0; c < chunks; ++c)
            should[c] = holds(std::uint64_t{c} * ratio, ratio);
        for (const std::uint32_t portion : {chunks, chunks / 3 + 1, 1037u}) {
            for (std::uint32_t first = 0; first < chunks; first += portion) {
                const std::uint32_t count = std::min(portion, chunks - first);
                const Bytes bits =
                    read_map(reader, context, first, size, static_cast<std::int32_t>(count));
                for (std::uint32_t c = 0; c < count; ++c)
                    ASSERT_EQ(bit(bits, c), should[first + c])
                        << "chunk " << first + c << " of " << size << " bytes, read from " << first;
            }
        }
    }
}

inline void expect_used(const trak_fs_reader &reader, void *context, std::uint32_t block_size,
                        const std::vector<bool> &used, std::uint64_t blocks) {
    expect_map(reader, context, block_size, blocks, [&](std::uint64_t first, std::uint64_t count) {
        for (std::uint64_t b = first; b < first + count && b < used.size(); ++b)
            if (used[b])
                return true;
        return false;
    });
}

// Some blocks in use, in runs of many lengths; the same for the same seed.
inline void scatter(std::vector<bool> &used, std::uint32_t seed) {
    std::uint64_t state = seed;
    bool in_use = false;
    for (std::size_t b = 0; b < used.size();) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        std::size_t run = 1 + (state >> 33) % ((state >> 20) % 3 == 0 ? 2000 : 9);
        for (; run > 0 && b < used.size(); --run, ++b)
            if (in_use)
                used[b] = true;
        in_use = !in_use;
    }
}

// Every allocation of init in turn fails: no context, a message, no leak.
inline void expect_no_memory_is_survived(Machine &machine, const trak_fs_reader &reader,
                                         unsigned at_least) {
    for (unsigned n = 1;; ++n) {
        ASSERT_LT(n, 500u);
        bool made = false;
        on_disk(machine, [&](os_bdev *bdev) {
            const std::uint64_t before = sim::fault_points(sim::Fault::kAlloc);
            sim::fail_nth(sim::Fault::kAlloc, n);
            void *context = reader.init(bdev, nullptr);
            const bool reached = sim::fault_points(sim::Fault::kAlloc) - before >= n;
            sim::fail_none();
            made = context != nullptr;
            EXPECT_EQ(made, !reached);
            EXPECT_EQ(sim::count_log("Memory allocation failed") > 0, reached) << whole_log();
            if (made)
                (void)reader.destroy(context);
        });
        if (made) {
            EXPECT_GT(n, at_least);
            return;
        }
    }
}

// What every read refuses, with its messages.
inline void expect_arguments_checked(Machine &machine, const trak_fs_reader &reader,
                                     const std::string &name, std::uint32_t block_size) {
    on_reader(machine, reader, [&](void *context) {
        std::uint8_t out = 0x5a;
        EXPECT_EQ(reader.read(nullptr, 0, block_size, &out, 8), -EINVAL);
        EXPECT_TRUE(logged_error(name + "(): Invalid reader's context NULL.")) << whole_log();
        for (const std::uint32_t size : {0u, 1u, 3u, block_size * 3}) {
            EXPECT_EQ(reader.read(context, 0, size, &out, 8), -EINVAL);
            EXPECT_TRUE(logged_error(name + "(): Chunk size (" + std::to_string(size) +
                                     ") must be a power of 2."))
                << whole_log();
        }
        for (const std::uint32_t size : {2u, block_size / 2}) {
            EXPECT_EQ(reader.read(context, 0, size, &out, 8), -EINVAL);
            EXPECT_TRUE(logged_error(name + "(): Chunk size (" + std::to_string(size) +
                                     ") is smaller than FS block size (" +
                                     std::to_string(block_size) + ")."))
                << whole_log();
        }
        EXPECT_EQ(reader.read(context, 0, block_size, &out, 0), 0);
        EXPECT_EQ(out, 0x5a);
    });
    EXPECT_EQ(reader.destroy(nullptr), 0);
}

}  // namespace reader_world

#endif
