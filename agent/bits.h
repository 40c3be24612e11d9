// agent/bits.h: change maps in memory and in files
// SPDX-License-Identifier: GPL-2.0-only
//
// Bit n stands for extent n of the disk and lies at bit (n & 7) of byte n >> 3, as in the driver.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent {

struct Run {
    uint64_t first, count;  // bits; count 0: none
};

class Map {
  public:
    Map() = default;
    // All bits 0.
    Map(uint64_t disk_bytes, uint64_t unit_bytes);

    uint64_t disk_size() const { return disk_size_; }
    uint64_t unit_size() const { return unit_size_; }
    uint64_t count() const { return count_; }
    bool empty() const { return count_ == 0; }
    std::vector<uint8_t> &bytes() { return bytes_; }
    const std::vector<uint8_t> &bytes() const { return bytes_; }

    bool get(uint64_t n) const { return (bytes_[n >> 3] >> (n & 7) & 1) != 0; }
    void set(uint64_t n) { bytes_[n >> 3] = static_cast<uint8_t>(bytes_[n >> 3] | 1u << (n & 7)); }
    void set_all();
    uint64_t marked() const;
    bool full() const { return count_ > 0 && marked() == count_; }
    // Bytes of disk under the marked units; the disk's end cuts the last one.
    uint64_t marked_bytes() const;
    // The first run of set bits at or after `from`.
    Run next(uint64_t from) const;
    // Or. The other must have the same shape.
    void add(const Map &other);
    // The same bytes of disk in smaller units.
    Map refined(uint64_t unit_bytes) const;
    bool same_shape(const Map &other) const {
        return disk_size_ == other.disk_size_ && unit_size_ == other.unit_size_;
    }

  private:
    uint64_t disk_size_ = 0, unit_size_ = 0, count_ = 0;
    std::vector<uint8_t> bytes_;
};

// A map file: see docs/agent.md. `run` binds it to the run that wrote it.
std::vector<uint8_t> map_file_bytes(const Map &map, const std::string &run);
// Throws Failure with what is wrong: length, magic, checksum, or another run's (where run is given).
Map map_from_file(const std::string &path, const std::vector<uint8_t> &bytes,
                  const std::string &run);

}  // namespace agent
