// tests/scenario/track_client.h: a program that drives one filter node in a simulated machine
// SPDX-License-Identifier: GPL-2.0-only
//
// Knows the control interface only, as an agent does; shares no code with the driver.
#ifndef TRAK_TESTS_SCENARIO_TRACK_CLIENT_H
#define TRAK_TESTS_SCENARIO_TRACK_CLIENT_H

#include <cstring>
#include <set>
#include <string>

#include "abi/trak_ioctl.h"
#include "driver/module/module.h"
#include "os/sim/sim.h"

namespace track {

using Extents = std::set<std::uint64_t>;

inline constexpr os_dev_t kDisk = (8u << 20) | 0;  // /dev/sda
inline constexpr const char *kBmpDir = "/var/trak";
inline constexpr const char *kMarker = "/var/trak/trak0.session";

// What a disk and its extents are in a run.
struct Shape {
    std::uint64_t disk_bytes;
    std::uint32_t extent_size;
    std::uint64_t extents() const { return (disk_bytes + extent_size - 1) / extent_size; }
    std::uint32_t bitmap_bytes() const { return static_cast<std::uint32_t>((extents() + 7) / 8); }
};

// One command; the record goes through the process's memory both ways.
template <typename Record> int command(std::uint32_t code, Record &record) {
    const os_uaddr at = sim::user_alloc(sizeof record);
    std::memcpy(sim::user_bytes(at, sizeof record).data(), &record, sizeof record);
    const int rc = sim::chr_ioctl(code, at);
    std::memcpy(&record, sim::user_bytes(at, sizeof record).data(), sizeof record);
    sim::user_free(at);
    return rc;
}

inline int add_filter(const Shape &shape) {
    trak_add_filter_arg arg{};
    std::strcpy(arg.hdd_name, "/dev/sda");
    std::strcpy(arg.bmp_dir, kBmpDir);
    arg.minor = 0;
    arg.extent_size = shape.extent_size;
    return command(TRAK_ADD_FILTER_NODE, arg);
}

inline int minor_command(std::uint32_t code) {
    trak_minor_arg arg{};
    return command(code, arg);
}

inline int bitmap_command(std::uint32_t code, std::uint32_t type) {
    trak_bmp_arg arg{};
    arg.type = type;
    return command(code, arg);
}

inline Extents extents_of(const sim::Bytes &bits, std::uint64_t count) {
    Extents marked;
    for (std::uint64_t e = 0; e < count; ++e)
        if ((bits[e / 8] >> (e % 8)) % 2 == 1)
            marked.insert(e);
    return marked;
}

// Get, get-and-clear, set and merge: `bits` goes in, and comes back where the command returns a map.
inline int map_command(std::uint32_t code, std::uint32_t type, sim::Bytes &bits) {
    const os_uaddr at = sim::user_alloc(bits.size());
    std::memcpy(sim::user_bytes(at, bits.size()).data(), bits.data(), bits.size());
    trak_bmp_data_arg arg{};
    arg.type = type;
    arg.size = static_cast<std::uint32_t>(bits.size());
    arg.data = at;
    const int rc = command(code, arg);
    std::memcpy(bits.data(), sim::user_bytes(at, bits.size()).data(), bits.size());
    sim::user_free(at);
    return rc;
}

// Everything counts as changed.
inline int set_everything(std::uint32_t type) {
    trak_bmp_data_arg arg{};
    arg.type = type;
    return command(TRAK_SET_BMP, arg);
}

inline os_dev_t node_dev() {
    return os_mkdev(static_cast<std::uint32_t>(100), 0);
}

inline void prepare(sim::Storage &storage, const Shape &shape) {
    storage.mkdir(kBmpDir);
    storage.mkdir("/dev/trak");
    storage.mount("/", (8u << 20) | 16);
    storage.add_disk("sda", kDisk, shape.disk_bytes, 512);
}

}  // namespace track

#endif
