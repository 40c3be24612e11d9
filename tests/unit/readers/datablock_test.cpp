// tests/unit/readers/datablock_test.cpp: the data-block commands, and snapshots that use the map
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/cowbmp.h"
#include "tests/support/snap_world.h"
#include "tests/unit/readers/reader_world.h"

namespace {

using namespace reader_world;
using snap_world::make_started_snap;

constexpr std::uint32_t kChunk = 4096;

// An ext2 file system whose second half is free, on the filter's disk.
Ext2 half_empty() {
    Ext2 fs(1024, 4096);
    for (std::uint32_t b = 0; b < 2048; ++b)
        fs.used[b] = true;
    fs.used[3001] = true;
    return fs;
}

struct SnapDisk : Machine {
    Ext2 fs = half_empty();
    SnapDisk() : Machine(half_empty().bytes()) {
        snap_world::prepare(*this);
        snap_world::fill_disk(*this);
        put(*this, fs.pieces());
    }
    bool holds(std::uint64_t first, std::uint64_t count) const {
        for (std::uint64_t b = first; b < first + count && b < fs.blocks; ++b)
            if (fs.used[b])
                return true;
        return false;
    }
};

struct Answer {
    int rc;
    std::int32_t size;
    Bytes bits;
};

// The command with a buffer of `size` bytes that was filled before.
Answer get_map(std::uint32_t minor, std::uint32_t extent_size, std::int32_t size) {
    const auto bytes = static_cast<std::size_t>(size);
    const os_uaddr data = sim::user_alloc(bytes);
    std::memset(sim::user_bytes(data, bytes).data(), 0x5a, bytes);
    trak_datablock_arg arg{minor, extent_size, size, 0, data};
    const int rc = command(TRAK_GET_DATABLOCK_BMP, arg);
    const auto got = sim::user_bytes(data, bytes);
    Answer answer{rc, arg.size, Bytes(got.begin(), got.end())};
    sim::user_free(data);
    return answer;
}

void expect_error(const std::string &text) {
    EXPECT_TRUE(logged_error("trak_ioctl_get_datablock_bmp(): " + text)) << text << "\n"
                                                                         << whole_log();
}

// The node's numbers, as messages show them.
std::string node_name(std::uint32_t minor) {
    return "trak(" + std::to_string(trak_blk_major) + ", " + std::to_string(minor) + ")";
}

TEST(datablock_map, extent_of_the_chunk_size_gives_the_chunks_themselves) {
    SnapDisk disk;
    boot(disk, [&] {
        make_started_snap(kChunk);
        for (const std::int32_t size : {128, 129, 4000}) {
            const Answer answer = get_map(1, kChunk, size);
            EXPECT_EQ(answer.rc, 0);
            EXPECT_EQ(answer.size, 128);
            for (std::uint32_t c = 0; c < 1024; ++c)
                ASSERT_EQ(bit(answer.bits, c), disk.holds(c * 4, 4)) << c;
            for (std::size_t i = 128; i < answer.bits.size(); ++i)
                ASSERT_EQ(answer.bits[i], 0x5a);
        }
        EXPECT_TRUE(logged(1, "trak_ioctl_get_datablock_bmp(): Returning datablock bitmap of " +
                                  node_name(1)))
            << whole_log();
    });
}

TEST(datablock_map, larger_extents_hold_data_when_one_of_their_chunks_does) {
    SnapDisk disk;
    boot(disk, [&] {
        make_started_snap(kChunk);
        for (std::uint32_t ratio = 2; ratio <= 2048; ratio *= 2) {
            const std::uint32_t extents = (1024 + ratio - 1) / ratio;
            const Answer answer = get_map(1, kChunk * ratio, 1000);
            EXPECT_EQ(answer.rc, 0);
            EXPECT_EQ(answer.size, static_cast<std::int32_t>((extents + 7) / 8));
            for (std::uint32_t e = 0; e < extents; ++e)
                ASSERT_EQ(bit(answer.bits, e), disk.holds(std::uint64_t{e} * ratio * 4, ratio * 4))
                    << e << " of ratio " << ratio;
        }
    });
}

TEST(datablock_map, odd_number_of_chunks_is_halved_rounding_up) {
    SnapDisk disk;
    Machine odd(kChunk * 1025);
    snap_world::prepare(odd);
    put(odd, disk.fs.pieces());
    boot(odd, [&] {
        make_started_snap(kChunk);
        EXPECT_EQ(get_map(1, kChunk, 1000).size, 129);
        EXPECT_EQ(get_map(1, kChunk * 2, 1000).size, 65);
        EXPECT_EQ(get_map(1, kChunk * 2, 65).rc, 0);
        EXPECT_EQ(get_map(1, kChunk * 2, 64).rc, -EINVAL);
    });
}

TEST(datablock_map, disk_without_a_known_file_system_is_all_data) {
    Machine machine(kChunk * 100);
    snap_world::prepare(machine);
    snap_world::fill_disk(machine);
    boot(machine, [&] {
        make_started_snap(kChunk);
        // The snap reads the disk through its own node.
        EXPECT_TRUE(logged(1, "trak_blkbmp_read(): Cannot recognize file system on hdd(" +
                                  std::to_string(trak_blk_major) +
                                  ", 1). Datablocks will be disabled"))
            << whole_log();
        const Answer answer = get_map(1, kChunk, 13);
        EXPECT_EQ(answer.rc, 0);
        EXPECT_EQ(answer.size, 13);
        EXPECT_EQ(answer.bits, Bytes(13, 0xff));
    });
}

TEST(datablock_map, filter_is_no_snap) {
    SnapDisk disk;
    boot(disk, [&] {
        make_started_snap(kChunk);
        const Answer answer = get_map(0, kChunk, 128);
        EXPECT_EQ(answer.rc, -EINVAL);
        EXPECT_EQ(answer.bits, Bytes(128, 0x5a));
        expect_error(node_name(0) + " is not a snap device");
    });
}

TEST(datablock_map, snap_that_is_not_started_is_refused) {
    SnapDisk disk;
    boot(disk, [&] {
        snap_world::make_snap(kChunk);
        EXPECT_EQ(get_map(1, kChunk, 128).rc, -EINVAL);
        expect_error("Snap device " + node_name(1) + " has not been started yet");
        ASSERT_EQ(start(1), 0);
        EXPECT_EQ(get_map(1, kChunk, 128).rc, 0);
        ASSERT_EQ(stop(1), 0);
        EXPECT_EQ(get_map(1, kChunk, 128).rc, -EINVAL);
    });
}

TEST(datablock_map, minor_without_a_node_is_refused) {
    SnapDisk disk;
    boot(disk, [&] {
        make_started_snap(kChunk);
        EXPECT_NE(get_map(5, kChunk, 128).rc, 0);
        EXPECT_NE(get_map(0xffffffff, kChunk, 128).rc, 0);
    });
}

TEST(datablock_map, bad_requests_are_refused_in_order) {
    SnapDisk disk;
    boot(disk, [&] {
        make_started_snap(kChunk);
        trak_datablock_arg null{1, 3, 0, 0, 0};
        EXPECT_EQ(command(TRAK_GET_DATABLOCK_BMP, null), -EINVAL);
        expect_error("NULL bitmap data pointer passed as input");
        for (const std::uint32_t size : {0u, 1u, 3u, 4097u, 0xffffffffu}) {
            EXPECT_EQ(get_map(1, size, 128).rc, -EINVAL);
            expect_error("Extent size (" + std::to_string(static_cast<int>(size)) +
                         ") must have been a power of 2.");
        }
        EXPECT_EQ(get_map(1, 2048, 128).rc, -EINVAL);
        expect_error("Extent size (2048) must be bigger than chunk size (4096).");
        EXPECT_EQ(get_map(1, kChunk, 127).rc, -EINVAL);
        expect_error("Bitmap buffer is not large enough: should be 128B instead of 127B.");
        const os_uaddr data = sim::user_alloc(200);
        trak_datablock_arg negative{1, kChunk, -1, 0, data};
        EXPECT_EQ(command(TRAK_GET_DATABLOCK_BMP, negative), -EINVAL);
        expect_error("Bitmap buffer is not large enough: should be 128B instead of -1B.");
        sim::user_free(data);
    });
}

TEST(datablock_map, buffer_that_cannot_be_written_is_told) {
    SnapDisk disk;
    boot(disk, [&] {
        make_started_snap(kChunk);
        trak_datablock_arg arg{1, kChunk, 128, 0, 0x1000};
        EXPECT_EQ(command(TRAK_GET_DATABLOCK_BMP, arg), -EFAULT);
        expect_error("Failed to copyout the bitmap");
    });
}

TEST(datablock_map, command_without_memory_fails_and_keeps_nothing) {
    SnapDisk disk;
    boot(disk, [&] {
        make_started_snap(kChunk);
        bool told = false;
        int rc = -1;
        for (unsigned n = 1; rc != 0; ++n) {
            ASSERT_LT(n, 20u);
            sim::fail_nth(sim::Fault::kAlloc, n);
            rc = get_map(1, kChunk, 128).rc;
            sim::fail_none();
            told = told || logged_error("trak_ioctl_get_datablock_bmp(): Failed to allocated 128 "
                                        "bytes of memory");
        }
        EXPECT_TRUE(told) << whole_log();
    });
}

// ---- snapshots that use the map --------------------------------------------------------------

TEST(snap_with_a_map, write_to_a_free_chunk_copies_nothing) {
    SnapDisk disk;
    boot(disk, [&] {
        make_started_snap(kChunk);
        ASSERT_EQ(snap_world::snap(1).blkbmp.valid, 1);
        const Bytes before = disk.storage.read_file(snap_world::data_path(1));
        for (std::uint32_t c = 512; c < 1024; c += 3) {
            if (c == 3001 / 4)
                continue;
            ASSERT_FALSE(disk.holds(c * 4, 4));
            ASSERT_EQ(write_node(0, c * 8, 8, 0x77), 0);
            ASSERT_EQ(trak_cowbmp_test_bit(&snap_world::snap(1).cowbmp, c), 0) << c;
        }
        EXPECT_EQ(disk.storage.read_file(snap_world::data_path(1)), before);
        // Nothing of it was kept: the snapshot shows what is there now.
        EXPECT_EQ(snap_world::contents(1, 602 * 8, 8), Bytes(4096, 0x77));
    });
}

TEST(snap_with_a_map, write_to_a_used_chunk_is_preserved) {
    SnapDisk disk;
    const Bytes old = disk.disk.read(0, disk.disk.size());
    boot(disk, [&] {
        make_started_snap(kChunk);
        ASSERT_EQ(snap_world::snap(1).blkbmp.valid, 1);
        for (const std::uint32_t c : {0u, 1u, 100u, 511u, 3001u / 4}) {
            ASSERT_TRUE(disk.holds(c * 4, 4));
            ASSERT_EQ(write_node(0, c * 8, 8, 0x77), 0);
            ASSERT_EQ(trak_cowbmp_test_bit(&snap_world::snap(1).cowbmp, c), 1) << c;
            const Bytes kept(old.begin() + c * 4096, old.begin() + c * 4096 + 4096);
            ASSERT_EQ(snap_world::contents(1, c * 8, 8), kept) << c;
        }
    });
}

TEST(snap_with_a_map, write_that_touches_a_used_and_a_free_chunk_preserves_the_used_one) {
    SnapDisk disk;
    const Bytes old = disk.disk.read(0, disk.disk.size());
    boot(disk, [&] {
        make_started_snap(kChunk);
        ASSERT_EQ(write_node(0, 511 * 8, 16, 0x77), 0);
        EXPECT_EQ(trak_cowbmp_test_bit(&snap_world::snap(1).cowbmp, 511), 1);
        const Bytes kept(old.begin() + 511 * 4096, old.begin() + 512 * 4096);
        EXPECT_EQ(snap_world::contents(1, 511 * 8, 8), kept);
    });
}

TEST(snap_with_a_map, map_that_cannot_be_built_leaves_a_snap_that_preserves_all) {
    SnapDisk disk;
    const Bytes old = disk.disk.read(0, disk.disk.size());
    patch_le(disk, disk.fs.desc_at(0), 0xffffffff, 4);  // its bitmap is beyond the disk
    boot(disk, [&] {
        make_started_snap(kChunk);
        EXPECT_EQ(snap_world::snap(1).blkbmp.valid, 0);
        ASSERT_EQ(write_node(0, 600 * 8, 8, 0x77), 0);
        const Bytes kept(old.begin() + 600 * 4096, old.begin() + 601 * 4096);
        EXPECT_EQ(snap_world::contents(1, 600 * 8, 8), kept);
        EXPECT_EQ(get_map(1, kChunk, 128).bits, Bytes(128, 0xff));
    });
}

}  // namespace
