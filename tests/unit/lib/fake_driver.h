// tests/unit/lib/fake_driver.h: a control device for tests, written without a look at the driver's code
// SPDX-License-Identifier: GPL-2.0-only
//
// It answers the 17 commands as the interface says, and keeps two kinds of state: what a crash
// leaves (Durable) and what it does not (the nodes). Every command and every marker operation is
// one step; a step can be made to fail, and the machine can be made to die before a step: from
// then on nothing has an effect and everything fails.
#pragma once

#include "abi/trak_ioctl.h"
#include "lib/trak.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace fake {

struct BitmapFile {
    bool dirty = false;
    std::vector<uint8_t> bits;
};

// What survives a crash.
struct Durable {
    std::map<std::string, BitmapFile> bitmaps;
    std::map<std::string, std::string> markers;
    std::set<uint32_t> written;  // extents of the disk that differ from the last full backup
};

struct Node {
    uint32_t type = TRAK_DEV_FILTER;
    std::string name, uuid, disk, bmp_dir, cow_bmp, cow_data;
    uint32_t unit = 65536, use_cnt = 0, filter = 0;
    uint64_t dev_size = 0;
    bool started = false, valid = false, stop_pending = false, del_pending = false;
    bool dirty[2] = {false, false};
    std::vector<uint8_t> bits[2];  // by bitmap type
    std::vector<uint32_t> snaps;
    // A snap's data-block map: whether it was built, and how many chunks hold data, from 0 on (-1: a
    // pattern).
    bool map_built = true;
    int64_t data_chunks = -1;
    uint32_t extents() const { return static_cast<uint32_t>((dev_size - 1) / unit + 1); }
};

class Driver {
  public:
    explicit Driver(Durable &durable) : durable(durable) {}

    // ---- knobs ----
    std::string session = "instance-1";
    uint32_t max_minor = 255;
    uint64_t dev_size = 100 * 65536 - 1000;  // of every disk
    bool supports_snaps = true;
    bool saves_fail = false;  // every save of a bitmap to its file
    // Asked before each command: a result other than 0 is returned without any effect.
    std::function<int(uint32_t code)> refuse = [](uint32_t) { return 0; };
    // After a command took effect, its answer is lost: returned instead of 0.
    std::function<int(uint32_t code)> lose = [](uint32_t) { return 0; };
    uint64_t steps = 0;              // done so far
    uint64_t dies_at = UINT64_MAX;   // the step before which the machine dies
    uint64_t fails_at = UINT64_MAX;  // the step that fails with -EIO

    // ---- what happened ----
    std::vector<std::string> events;  // "add 3", "start 3", "marker+ /b/trak3.session", ...
    std::vector<std::vector<uint8_t>> records;  // as they arrived
    std::vector<uint32_t> codes;

    Durable &durable;
    std::map<uint32_t, Node> nodes;

    bool dead() const { return steps > dies_at; }
    // A write of one extent by the file system: false where the node can't take it. As in the worst
    // case, the dirty flag does not reach the bitmap file before the next save.
    bool write(uint32_t minor, uint32_t extent);
    // As the driver's own stop does it.
    void save(Node &node, uint32_t minor, uint32_t type);
    void load(Node &node, uint32_t minor, uint32_t type);
    bool marked(uint32_t minor, uint32_t type, uint32_t extent) const;
    static std::string file(const Node &node, uint32_t minor, uint32_t type);

    // The seam: commands alone, or markers in Durable and places as well.
    trak_seam commands_only() const;
    trak_seam everything() const;
    // Places by path, for everything(): value is the node's name, or "" for "no block device".
    std::map<std::string, std::string> places;

  private:
    int step(const std::string &event);
    int command(uint32_t code, void *record);
    int dispatch(uint32_t code, void *record);
    int on_filter_added(trak_add_filter_arg *arg);
    int on_snap_added(trak_add_snap_arg *arg);
    int on_bitmap(uint32_t code, void *record, Node &node);
    int on_data(uint32_t code, trak_bmp_data_arg *arg, Node &node);
    int on_info(trak_info_arg *arg);
    int on_datablocks(trak_datablock_arg *arg);
    int on_stopped(uint32_t minor, Node &node);
    void forget(std::map<uint32_t, Node>::iterator node);
    uint32_t lowest_free() const;

    static int ioctl(void *ctx, uint32_t code, void *record);
    static int marker_read(void *ctx, const char *path, char *text, size_t size);
    static int marker_write(void *ctx, const char *path, const char *text);
    static int marker_remove(void *ctx, const char *path);
    static int session_text(void *ctx, char *text, size_t size);
    static int place(void *ctx, const char *path, char *node);
};

// A directory of its own under the temporary directory, removed with everything in it.
class TempDir {
  public:
    TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    ~TempDir();
    std::string path(const std::string &name = "") const;
    // Write a file, with the directories above it.
    std::string put(const std::string &name, const std::string &text) const;
    std::string make_dir(const std::string &name) const;

  private:
    std::string path_;
};

std::string read_file(const std::string &path);

}  // namespace fake
