// agent/driver.h: the commands that a backup needs, on top of libtrak
// SPDX-License-Identifier: GPL-2.0-only
//
// Every function throws Failure with a sentence that says what was wrong and what to do.
#pragma once

#include "agent/bits.h"
#include "agent/files.h"
#include "agent/manifest.h"
#include "lib/trak.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace agent {

struct FilterNode {
    NodeId id;
    bool started = false;
    bool incr_full = false, diff_full = false;  // every extent is marked
    std::string bmp_dir;
    std::vector<uint32_t> snaps;
};

struct SnapNode {
    uint32_t minor = 0, chunk_size = 0;
    std::string uuid, name, cow_bmp, cow_data;
    bool started = false, valid = false, stop_pending = false;
};

enum class MapType : uint32_t { diff = TRAK_BMP_DIFF, incr = TRAK_BMP_INCR };
const char *map_type_name(MapType type);

class Driver {
  public:
    // Does not own the connection.
    explicit Driver(trak *connection) : t_(connection) {}

    // By minor, name, path below dev/trak, uuid or disk.
    FilterNode find(const std::string &which) const;
    FilterNode filter(uint32_t minor) const;
    SnapNode snap(uint32_t minor) const;
    std::optional<SnapNode> find_snap(const std::string &uuid) const;
    // The COW files of all snapshots.
    std::vector<std::string> cow_files() const;

    Map take_map(uint32_t minor, MapType type) const;  // TRAK_GET_AND_CLR_BMP
    Map read_map(uint32_t minor, MapType type) const;
    void merge_map(uint32_t minor, MapType type, const Map &map) const;
    void set_everything(uint32_t minor, MapType type) const;
    // The driver saves by itself after each command; this one says whether it succeeds.
    void save_map(uint32_t minor, MapType type) const;

    // Makes a stopped snap node; its minor.
    uint32_t make_snap(const FilterNode &filter, uint32_t chunk_size, const std::string &uuid,
                       const std::string &cow_bmp, const std::string &cow_data) const;
    void start_snap(uint32_t minor) const;
    // Stops and deletes. The result is a notice, where the driver postpones it.
    std::string remove_snap(uint32_t minor) const;
    // Which units of a started snapshot hold data. unit: at least its chunk size.
    Map data_map(uint32_t snap_minor, uint64_t unit) const;
    files::Fd open_snap(const SnapNode &snap) const;
    // For tests: opens a snapshot in place of its file in the tree.
    std::function<files::Fd(const SnapNode &)> open_hook;

    std::string log_name() const;

  private:
    std::vector<uint32_t> nodes(uint32_t type) const;
    [[noreturn]] void fail(int rc, const std::string &what) const;
    trak_info_arg info(uint32_t minor) const;
    trak *t_;
};

}  // namespace agent
