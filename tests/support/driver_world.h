// tests/support/driver_world.h: the driver loaded on a simulated machine, for its tests
// SPDX-License-Identifier: GPL-2.0-only
//
// A Machine is storage with one disk /dev/sdb (8, 16), a folder /bmp for bitmap files and /dev/trak for
// special files. It outlives boots. boot() runs a function with the driver loaded and unloads it again,
// which must succeed; the World then checks for leaks. All else here is called inside of a boot.
//
//     Machine machine;
//     boot(machine, [&] {
//         ASSERT_EQ(add_filter(), 0);
//         ASSERT_EQ(start(0), 0);
//         EXPECT_EQ(write_node(0, 8, 1), 0);
//         EXPECT_EQ(incr_bmp(0)[0] & 2, 2);
//     });
#ifndef TRAK_TESTS_SUPPORT_DRIVER_WORLD_H
#define TRAK_TESTS_SUPPORT_DRIVER_WORLD_H

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <string_view>

#include "abi/trak_ioctl.h"
#include "driver/block/device.h"
#include "driver/block/table.h"
#include "driver/module/module.h"
#include "driver/module/params.h"
#include "os/sim/sim.h"

namespace driver_world {

using sim::Bytes;

inline constexpr os_dev_t kDisk = 8u << 20 | 16u;
inline constexpr std::uint64_t kDiskSize = 1 << 20;
inline constexpr const char *kDiskPath = "/dev/sdb";
inline constexpr const char *kIncrFile = "/bmp/trak0.incr";
inline constexpr const char *kDiffFile = "/bmp/trak0.diff";

struct Machine {
    sim::Storage storage;
    sim::Disk &disk;

    explicit Machine(std::uint64_t size = kDiskSize, std::uint32_t block_size = 512)
        : disk(storage.add_disk("sdb", kDisk, size, block_size)) {
        storage.mkdir("/bmp");
        storage.mkdir("/dev/trak");
    }
};

// Boots without loading the driver.
inline void boot_bare(Machine &machine, const std::function<void()> &fn,
                      sim::Options options = {}) {
    sim::World(machine.storage, options).run(fn);
}

// Boots, loads the driver at this debug level, runs fn, and unloads.
inline void boot(Machine &machine, const std::function<void()> &fn, int debug = 1,
                 sim::Options options = {}) {
    boot_bare(
        machine,
        [&] {
            trak_debug = debug;
            ASSERT_EQ(trak_init(), 0);
            fn();
            sim::fail_none();
            EXPECT_EQ(trak_cleanup(), 0);
        },
        options);
}

// ---- commands of the control device ---------------------------------------------------------

// The record goes to the driver in the process's own memory and comes back from there.
template <typename Record> int command(std::uint32_t code, Record &record) {
    const os_uaddr at = sim::user_alloc(sizeof record);
    std::memcpy(sim::user_bytes(at, sizeof record).data(), &record, sizeof record);
    const int rc = sim::chr_ioctl(code, at);
    std::memcpy(&record, sim::user_bytes(at, sizeof record).data(), sizeof record);
    sim::user_free(at);
    return rc;
}

inline trak_add_filter_arg filter_arg(std::int32_t minor = -1, std::uint32_t extent_size = 4096,
                                      const std::string &disk = kDiskPath,
                                      const std::string &dir = "/bmp") {
    trak_add_filter_arg arg{};
    std::strncpy(arg.hdd_name, disk.c_str(), sizeof arg.hdd_name);
    std::strncpy(arg.bmp_dir, dir.c_str(), sizeof arg.bmp_dir);
    arg.minor = minor;
    arg.extent_size = extent_size;
    return arg;
}

inline int add_filter(std::int32_t minor = -1, std::uint32_t extent_size = 4096,
                      const std::string &disk = kDiskPath, const std::string &dir = "/bmp") {
    trak_add_filter_arg arg = filter_arg(minor, extent_size, disk, dir);
    return command(TRAK_ADD_FILTER_NODE, arg);
}

inline int node_command(std::uint32_t code, std::uint32_t minor) {
    trak_minor_arg arg{minor};
    return command(code, arg);
}
inline int start(std::uint32_t minor) {
    return node_command(TRAK_START_NODE, minor);
}
inline int stop(std::uint32_t minor) {
    return node_command(TRAK_STOP_NODE, minor);
}
inline int del(std::uint32_t minor) {
    return node_command(TRAK_DEL_NODE, minor);
}

inline int bmp_command(std::uint32_t code, std::uint32_t minor, std::uint32_t type) {
    trak_bmp_arg arg{minor, type};
    return command(code, arg);
}

// A command with a bitmap in the caller's memory: bytes go there and come back.
inline int bmp_data_command(std::uint32_t code, std::uint32_t minor, std::uint32_t type,
                            Bytes &bytes) {
    const os_uaddr data = sim::user_alloc(bytes.size());
    std::memcpy(sim::user_bytes(data, bytes.size()).data(), bytes.data(), bytes.size());
    trak_bmp_data_arg arg{minor, type, static_cast<std::uint32_t>(bytes.size()), 0, data};
    const int rc = command(code, arg);
    std::memcpy(bytes.data(), sim::user_bytes(data, bytes.size()).data(), bytes.size());
    sim::user_free(data);
    return rc;
}

// ---- looking in ------------------------------------------------------------------------------

// The record of a minor, or null. No lock is taken: for a boot whose other tasks leave the node alone.
inline trak_device *node(std::uint32_t minor) TRAK_NO_THREAD_SAFETY_ANALYSIS {
    return trak_find_device(minor);
}
inline trak_filter &filter(std::uint32_t minor) {
    return node(minor)->filter;
}
inline Bytes incr_bmp(std::uint32_t minor) {
    const trak_filter &f = filter(minor);
    return Bytes(f.incr_bmp, f.incr_bmp + f.incr_bmp_size);
}
inline Bytes diff_bmp(std::uint32_t minor) {
    const trak_filter &f = filter(minor);
    return Bytes(f.diff_bmp, f.diff_bmp + f.diff_bmp_size);
}
inline bool bit(const Bytes &bits, std::uint64_t n) {
    return (bits.at(n >> 3) >> (n & 7)) & 1;
}

// A filter on /dev/sdb as minor 0, started, both bitmaps all clear and saved.
inline void make_clean_filter(std::uint32_t extent_size = 4096) {
    ASSERT_EQ(add_filter(0, extent_size), 0);
    ASSERT_EQ(start(0), 0);
    ASSERT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_INCR), 0);
    ASSERT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_DIFF), 0);
}

// ---- I/O through a node ----------------------------------------------------------------------

inline os_dev_t node_dev(std::uint32_t minor) {
    return os_mkdev(static_cast<std::uint32_t>(trak_blk_major), minor);
}

inline os_bdev *open_node(std::uint32_t minor, int *err = nullptr) {
    int ignored;
    return sim::open_device(node_dev(minor), OS_FMODE_READ | OS_FMODE_WRITE, err ? err : &ignored);
}

// One write of `sectors` sectors by a program that opens the node for it: 0 or an errno.
inline int write_node(std::uint32_t minor, std::uint64_t sector, std::uint64_t sectors,
                      std::uint8_t fill = 0x5a) {
    int err = 0;
    os_bdev *bdev = open_node(minor, &err);
    if (!bdev)
        return err;
    const Bytes data(sectors * OS_SECTOR_SIZE, fill);
    const int rc = sim::write_device(bdev, sector, data);
    sim::close_device(bdev);
    return rc;
}

inline int read_node(std::uint32_t minor, std::uint64_t sector, Bytes &into) {
    int err = 0;
    os_bdev *bdev = open_node(minor, &err);
    if (!bdev)
        return err;
    const int rc = sim::read_device(bdev, sector, into);
    sim::close_device(bdev);
    return rc;
}

// ---- the log ---------------------------------------------------------------------------------

// The message's lines so far: text with its function name, after "<3>ERROR: " or "<6>prefix: ".
inline std::size_t count_messages(int level, std::string_view text) {
    std::size_t count = 0;
    for (const std::string &line : sim::log()) {
        const std::string_view view = line;
        if (level == 255)
            count += view == std::string("<3>ERROR: ").append(text);
        else
            count += view.starts_with("<6>") && view.size() >= text.size() + 9 &&
                     view.substr(9) == text && view.substr(7, 2) == ": ";
    }
    return count;
}
inline bool logged(int level, std::string_view text) {
    return count_messages(level, text) > 0;
}
inline bool logged_error(std::string_view text) {
    return logged(255, text);
}
// Lines that contain the part, in the order of the log, without what stands before it.
inline std::string order_of(std::string_view part) {
    std::string order;
    for (const std::string &line : sim::log()) {
        const auto at = line.find(part);
        if (at != std::string::npos)
            order += line.substr(at) + "; ";
    }
    return order;
}
inline std::string whole_log() {
    std::string text;
    for (const std::string &line : sim::log())
        text += line + "\n";
    return text;
}

}  // namespace driver_world

#endif
