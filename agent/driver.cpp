// agent/driver.cpp: the commands that a backup needs, on top of libtrak
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/driver.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>

namespace agent {
namespace {

template <size_t N> std::string text_of(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

template <size_t N> void fill(char (&field)[N], const std::string &text, const char *what) {
    if (text.size() >= N)
        throw Failure(fmt::format("the {} is too long: at most {} characters", what, N - 1),
                      ENAMETOOLONG);
    memcpy(field, text.c_str(), text.size() + 1);
}

struct Bits : trak_bitmap {
    Bits() : trak_bitmap{} {}
    Bits(const Bits &) = delete;
    Bits &operator=(const Bits &) = delete;
    ~Bits() { trak_bitmap_free(this); }

    Map map() const {
        Map map(dev_size, unit_size);
        if (map.count() != count || map.bytes().size() > size)
            throw Failure("the driver's map does not fit the node's size", EPROTO);
        memcpy(map.bytes().data(), bits, map.bytes().size());
        // What lies beyond the last extent means nothing.
        if ((count & 7) != 0)
            map.bytes().back() =
                static_cast<uint8_t>(map.bytes().back() & ((1u << (count & 7)) - 1));
        return map;
    }
};

SnapNode snap_of(const trak_info_arg &info) {
    SnapNode snap;
    snap.minor = info.minor;
    snap.chunk_size = info.chunk_size;
    snap.uuid = text_of(info.uuid);
    snap.name = text_of(info.name);
    snap.cow_bmp = text_of(info.cow_bmp_fname);
    snap.cow_data = text_of(info.cow_data_fname);
    snap.started = info.started != 0;
    snap.valid = info.snap_valid != 0;
    snap.stop_pending = info.stop_pending != 0;
    return snap;
}

FilterNode filter_of(const trak_info_arg &info) {
    FilterNode node;
    node.id.uuid = text_of(info.uuid);
    node.id.name = text_of(info.name);
    node.id.disk = text_of(info.hdd_name);
    node.id.minor = info.minor;
    node.id.size = info.dev_size;
    node.id.extent_size = info.extent_size;
    node.started = info.started != 0;
    node.incr_full = info.incr_bmp_full != 0;
    node.diff_full = info.diff_bmp_full != 0;
    node.bmp_dir = files::folder_of(text_of(info.incr_bmp_fname));
    for (uint32_t i = 0; i < info.snaps && i < TRAK_LIST_MAX; i++)
        node.snaps.push_back(info.snap_minors[i]);
    if (node.id.size == 0 || node.id.extent_size == 0)
        throw Failure(fmt::format("node {} has no size", info.minor), EPROTO);
    return node;
}

}  // namespace

const char *map_type_name(MapType type) {
    return type == MapType::incr ? "incr" : "diff";
}

std::string Driver::log_name() const {
    std::string root = trak_root(t_);
    return root == "/" ? "dmesg" : root + "/log";
}

void Driver::fail(int rc, const std::string &what) const {
    if (rc == -ENOTCONN || rc == -ECONNABORTED)
        throw Failure(
            fmt::format("can't {}: trakd at {} is gone; start it again", what, trak_root(t_)),
            ENOTCONN);
    throw Failure(fmt::format("can't {}: {}; {} may say more", what, strerror(-rc), log_name()),
                  -rc);
}

trak_info_arg Driver::info(uint32_t minor) const {
    trak_info_arg info;
    int rc = trak_get_info(t_, minor, &info);
    if (rc == -EINVAL)
        throw Failure(
            fmt::format("there is no node {}: \"trakctl list\" shows which there are", minor),
            ENODEV);
    if (rc < 0)
        fail(rc, fmt::format("look at node {}", minor));
    return info;
}

std::vector<uint32_t> Driver::nodes(uint32_t type) const {
    std::vector<uint32_t> minors(256);
    for (;;) {
        int count = trak_nodes(t_, type, minors.data(), static_cast<int>(minors.size()));
        if (count < 0)
            fail(count, "list the nodes");
        bool whole = static_cast<size_t>(count) <= minors.size();
        minors.resize(static_cast<size_t>(count));
        if (whole)
            return minors;
    }
}

FilterNode Driver::filter(uint32_t minor) const {
    trak_info_arg record = info(minor);
    if (record.dev_type != TRAK_DEV_FILTER)
        throw Failure(fmt::format("node {} is a snapshot: give the filter's", minor), EINVAL);
    return filter_of(record);
}

FilterNode Driver::find(const std::string &which) const {
    if (!which.empty() && which.size() < 10 &&
        which.find_first_not_of("0123456789") == std::string::npos)
        return filter(static_cast<uint32_t>(std::stoul(which)));
    for (uint32_t minor : nodes(TRAK_DEV_FILTER)) {
        FilterNode node = filter(minor);
        std::string root = trak_root(t_);
        std::string path = (root == "/" ? "" : root) + "/dev/trak/" + node.id.name;
        if (which == node.id.name || which == path || which == node.id.uuid ||
            which == node.id.disk)
            return node;
    }
    throw Failure(fmt::format("there is no filter node {}: \"trakctl list filter\" shows which "
                              "there are",
                              which),
                  ENODEV);
}

SnapNode Driver::snap(uint32_t minor) const {
    trak_info_arg record = info(minor);
    if (record.dev_type != TRAK_DEV_SNAP)
        throw Failure(fmt::format("node {} is no snapshot", minor), EINVAL);
    return snap_of(record);
}

std::optional<SnapNode> Driver::find_snap(const std::string &uuid) const {
    for (uint32_t minor : nodes(TRAK_DEV_SNAP)) {
        trak_info_arg record;
        int rc = trak_get_info(t_, minor, &record);
        if (rc == -EINVAL)
            continue;  // gone meanwhile
        if (rc < 0)
            fail(rc, fmt::format("look at node {}", minor));
        if (record.dev_type == TRAK_DEV_SNAP && text_of(record.uuid) == uuid)
            return snap_of(record);
    }
    return std::nullopt;
}

std::vector<std::string> Driver::cow_files() const {
    std::vector<std::string> paths;
    for (uint32_t minor : nodes(TRAK_DEV_SNAP)) {
        trak_info_arg record;
        int rc = trak_get_info(t_, minor, &record);
        if (rc == -EINVAL)
            continue;  // gone meanwhile
        if (rc < 0)
            fail(rc, fmt::format("look at node {}", minor));
        paths.push_back(text_of(record.cow_bmp_fname));
        paths.push_back(text_of(record.cow_data_fname));
    }
    return paths;
}

Map Driver::take_map(uint32_t minor, MapType type) const {
    Bits bits;
    int rc = trak_bitmap_take(t_, minor, static_cast<uint32_t>(type), &bits);
    if (rc < 0)
        fail(rc, fmt::format("take the {} map of node {}", map_type_name(type), minor));
    return bits.map();
}

Map Driver::read_map(uint32_t minor, MapType type) const {
    Bits bits;
    int rc = trak_bitmap_get(t_, minor, static_cast<uint32_t>(type), &bits);
    if (rc < 0)
        fail(rc, fmt::format("read the {} map of node {}", map_type_name(type), minor));
    return bits.map();
}

void Driver::merge_map(uint32_t minor, MapType type, const Map &map) const {
    int rc = trak_merge_bmp(t_, minor, static_cast<uint32_t>(type), map.bytes().data(),
                            static_cast<uint32_t>(map.bytes().size()));
    if (rc < 0)
        fail(rc, fmt::format("give the {} map back to node {}", map_type_name(type), minor));
}

void Driver::set_everything(uint32_t minor, MapType type) const {
    int rc = trak_set_bmp(t_, minor, static_cast<uint32_t>(type), nullptr, 0);
    if (rc < 0)
        fail(rc,
             fmt::format("mark everything in the {} map of node {}", map_type_name(type), minor));
}

void Driver::save_map(uint32_t minor, MapType type) const {
    int rc = trak_save_bmp(t_, minor, static_cast<uint32_t>(type));
    if (rc < 0)
        fail(rc, fmt::format("save the {} map of node {}", map_type_name(type), minor));
}

uint32_t Driver::make_snap(const FilterNode &filter, uint32_t chunk_size, const std::string &uuid,
                           const std::string &cow_bmp, const std::string &cow_data) const {
    trak_add_snap_arg arg = {};
    char why[TRAK_WHY_SIZE] = "";
    arg.filter_minor = filter.id.minor;
    arg.snap_minor = -1;
    arg.chunk_size = chunk_size;
    fill(arg.cow_bmp_fname, cow_bmp, "COW bitmap file's path");
    fill(arg.cow_data_fname, cow_data, "COW data file's path");
    fill(arg.uuid, uuid, "identifier");
    int rc = trak_attach_snap(t_, &arg, why);
    if (rc == -EDEADLK || rc == -ENOTBLK)
        throw Failure(fmt::format("{} (--cow-dir says where)", why), -rc);
    if (rc < 0)
        throw Failure(why, -rc);
    return static_cast<uint32_t>(arg.snap_minor);
}

void Driver::start_snap(uint32_t minor) const {
    char why[TRAK_WHY_SIZE] = "";
    int rc = trak_start(t_, minor, why);
    if (rc < 0)
        throw Failure(why, -rc);
}

std::string Driver::remove_snap(uint32_t minor) const {
    char why[TRAK_WHY_SIZE] = "";
    int rc = trak_detach(t_, minor, why);
    if (rc < 0)
        throw Failure(why, -rc);
    return why;
}

Map Driver::data_map(uint32_t snap_minor, uint64_t unit) const {
    Bits bits;
    int rc = trak_bitmap_datablocks(t_, snap_minor, static_cast<uint32_t>(unit), &bits);
    if (rc < 0)
        fail(rc, fmt::format("read the data-block map of snapshot {}", snap_minor));
    return bits.map();
}

files::Fd Driver::open_snap(const SnapNode &snap) const {
    if (open_hook)
        return open_hook(snap);
    std::string root = trak_root(t_);
    std::string path = (root == "/" ? "" : root) + "/dev/trak/" + snap.name;
    // What is read once need not push out what others read often.
    try {
        return files::open_file(path, O_RDONLY | O_DIRECT, 0);
    } catch (const Failure &failure) {
        if (failure.error != EINVAL)
            throw;
    }
    return files::open_file(path, O_RDONLY, 0);
}

}  // namespace agent
