// tests/support/snap_world.h: snapshots on the simulated machine of driver_world.h
// SPDX-License-Identifier: GPL-2.0-only
//
// COW files lie in /cow, on a file system of another disk. Minor 0 is the filter, snaps have minors of
// their own; snap m keeps its files /cow/bmp<m> and /cow/data<m>.
#ifndef TRAK_TESTS_SUPPORT_SNAP_WORLD_H
#define TRAK_TESTS_SUPPORT_SNAP_WORLD_H

#include <string>

#include "tests/support/driver_world.h"

namespace snap_world {

using namespace driver_world;

inline constexpr os_dev_t kCowDisk = 8u << 20 | 32u;

inline void prepare(Machine &machine) {
    machine.storage.mkdir("/cow");
    machine.storage.mount("/cow", kCowDisk);
}

inline std::string bmp_path(int minor) {
    return "/cow/bmp" + std::to_string(minor);
}
inline std::string data_path(int minor) {
    return "/cow/data" + std::to_string(minor);
}

inline trak_add_snap_arg snap_arg(std::int32_t minor, std::uint32_t chunk_size,
                                  std::uint32_t filter_minor = 0) {
    trak_add_snap_arg arg{};
    arg.filter_minor = filter_minor;
    arg.snap_minor = minor;
    arg.chunk_size = chunk_size;
    std::strncpy(arg.cow_bmp_fname, bmp_path(minor).c_str(), sizeof arg.cow_bmp_fname);
    std::strncpy(arg.cow_data_fname, data_path(minor).c_str(), sizeof arg.cow_data_fname);
    return arg;
}

inline int add_snap(std::int32_t minor, std::uint32_t chunk_size = 4096,
                    std::uint32_t filter_minor = 0) {
    trak_add_snap_arg arg = snap_arg(minor, chunk_size, filter_minor);
    return command(TRAK_ADD_SNAP_NODE, arg);
}

inline int resume(std::uint32_t minor, std::uint32_t valid = 1, std::uint32_t stop_pending = 0,
                  std::uint32_t del_pending = 0) {
    trak_resume_arg arg{minor, valid, stop_pending, del_pending};
    return command(TRAK_RESUME_SNAP, arg);
}

inline trak_snap &snap(std::uint32_t minor) {
    return node(minor)->snap;
}
inline bool is_started(std::uint32_t minor) {
    return node(minor)->started != 0;
}

// A read by a program that opens the node for reading alone: 0 or an errno.
inline int read_snap(std::uint32_t minor, std::uint64_t sector, Bytes &into) {
    int err = 0;
    os_bdev *bdev = sim::open_device(node_dev(minor), OS_FMODE_READ, &err);
    if (!bdev)
        return err;
    const int rc = sim::read_device(bdev, sector, into);
    sim::close_device(bdev);
    return rc;
}

// What a program reads there: the bytes, or none where the read failed.
inline Bytes contents(std::uint32_t minor, std::uint64_t sector, std::size_t sectors) {
    Bytes bytes(sectors * OS_SECTOR_SIZE);
    return read_snap(minor, sector, bytes) == 0 ? bytes : Bytes{};
}

// Bytes that tell where on the disk they lie.
inline Bytes pattern(std::uint64_t sector, std::size_t sectors) {
    Bytes bytes(sectors * OS_SECTOR_SIZE);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::uint64_t at = sector * OS_SECTOR_SIZE + i;
        bytes[i] = static_cast<std::uint8_t>(at / OS_SECTOR_SIZE * 7 + at % 251);
    }
    return bytes;
}

// Where two strings of bytes differ first; empty where they don't.
inline std::string difference(const Bytes &actual, const Bytes &expected) {
    if (actual.size() != expected.size())
        return std::to_string(actual.size()) + " bytes instead of " +
               std::to_string(expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        if (actual[i] != expected[i])
            return "byte " + std::to_string(i) + " is " + std::to_string(actual[i]) +
                   " instead of " + std::to_string(expected[i]);
    }
    return {};
}
#define EXPECT_BYTES(actual, expected) EXPECT_EQ(snap_world::difference(actual, expected), "")

inline void fill_disk(Machine &machine) {
    const std::size_t sectors = machine.disk.size() >> 9;
    machine.disk.write(0, pattern(0, sectors));
}

// A started filter (minor 0) and snap 1, not started.
inline void make_snap(std::uint32_t chunk_size = 4096) {
    ASSERT_EQ(add_filter(0), 0);
    ASSERT_EQ(start(0), 0);
    ASSERT_EQ(add_snap(1, chunk_size), 0);
}

// The same with snap 1 started.
inline void make_started_snap(std::uint32_t chunk_size = 4096) {
    make_snap(chunk_size);
    ASSERT_EQ(start(1), 0);
}

// True when the bit of the chunk is set in the file.
inline bool marked(Machine &machine, int minor, std::uint64_t chunk) {
    return bit(machine.storage.read_file(bmp_path(minor)), chunk);
}

}  // namespace snap_world

#endif
