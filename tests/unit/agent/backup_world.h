// tests/unit/agent/backup_world.h: a disk, a made-up driver, images that are plain files, and a judge
// SPDX-License-Identifier: GPL-2.0-only
//
// The judge knows nothing of maps: it keeps the disk's bytes at each snapshot's start, and compares
// every backup of the store with the bytes of its own moment.
#pragma once

#include "agent/backup.h"
#include "agent/files.h"
#include "tests/unit/lib/fake_driver.h"

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace fake {

constexpr uint32_t extent_bytes = 4096;
constexpr uint32_t extent_count = 24;

// The agent was killed: nothing that it does after has an effect.
struct Killed {};

// An image is a whole copy of the disk.
class PlainImages : public agent::ImageTool {
  public:
    void create(const std::string &path, uint64_t size, uint32_t cluster_size,
                const std::string &backing) override;
    std::unique_ptr<agent::ImageIo> open_for_writing(const std::string &path) override;
    std::unique_ptr<agent::ImageIo> open_for_reading(const std::string &path) override;
    void check(const std::string &path) override;
    void merge(const std::string &path, const std::string &to, uint32_t cluster_size,
               const std::string &backing) override;
    void compare(const std::string &one, const std::string &other) override;
    bool check_fails = false;
};

class World {
  public:
    World();
    ~World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    // A file system's write: a mark and a new content.
    void write(uint32_t extent);
    // What no filter sees.
    void write_past_the_filter(uint32_t extent);
    // A node over the disk with this uuid; `changed`: as after a stop without order.
    void attach(const std::string &uuid, bool changed);
    void lose_driver();  // trakd dies: nodes and snapshots are gone

    // Exit status; Failure, Killed and Interrupted come through.
    int backup(agent::Kind kind);
    int backup(const agent::BackupOptions &options);
    int audit(bool all);
    agent::BackupOptions options(agent::Kind kind) const;
    // Kills the agent at a named step.
    std::string kill_at;
    // An extent is written at every step of a run.
    bool busy = false;
    std::vector<std::string> seen;  // steps, in order
    int64_t fail_store_call = -1;   // this call of the store (from 0) fails
    int64_t fail_command = -1;      // this command fails
    int64_t store_calls = 0, commands = 0;
    void revive();  // a new agent, and no more failures

    // What is wrong with the store's backups, or empty.
    std::string judge();
    std::string said() const { return out_.str() + err_.str(); }
    void forget_said();
    std::vector<std::string> backups();
    std::vector<std::string> store_files() const;
    agent::Manifest newest();

    TempDir dir;
    std::string store;
    Durable durable;
    std::unique_ptr<Driver> driver;
    std::vector<uint8_t> disk;
    PlainImages images;
    int64_t data_chunks = extent_count;  // of new snapshots
    bool snap_dies = false;              // its reads fail, and it is invalid

  private:
    trak *connect();
    void wire();
    agent::files::Fd open_snap();
    template <class Run> int with_agent(Run run);
    trak *t_ = nullptr;
    std::vector<uint8_t> frozen_;
    std::map<std::string, std::vector<uint8_t>> moments_;  // by the run's time of freeze: its uuid
    std::ostringstream out_, err_;
    uint32_t next_write_ = 7;
    uint8_t content_ = 1;
    bool dead_ = false;
};

}  // namespace fake
