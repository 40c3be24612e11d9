// agent/bits.cpp: change maps in memory and in files
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/bits.h"

#include "agent/checksum.h"
#include "agent/failure.h"
#include "lib/trak.h"

#include <cstring>

#include <fmt/format.h>

namespace agent {
namespace {

constexpr char magic[8] = {'T', 'R', 'A', 'K', 'M', 'A', 'P', '1'};
constexpr size_t run_size = 40;       // a uuid and its terminator
constexpr size_t checksum_size = 40;  // "xxh128:" and 32 digits, and zero
constexpr size_t head_size = 8 + 8 + 8 + 8 + run_size + checksum_size;

void put(std::vector<uint8_t> &bytes, size_t at, uint64_t number) {
    for (size_t i = 0; i < 8; i++)
        bytes[at + i] = static_cast<uint8_t>(number >> (8 * i));
}

uint64_t take(const std::vector<uint8_t> &bytes, size_t at) {
    uint64_t number = 0;
    for (size_t i = 0; i < 8; i++)
        number |= static_cast<uint64_t>(bytes[at + i]) << (8 * i);
    return number;
}

// Over everything, with the checksum's own place as zeros.
std::string sum_of(std::vector<uint8_t> bytes) {
    std::fill_n(bytes.begin() + (head_size - checksum_size), checksum_size, uint8_t{0});
    return checksum_bytes(bytes.data(), bytes.size());
}

}  // namespace

Map::Map(uint64_t disk_bytes, uint64_t unit_bytes)
    : disk_size_(disk_bytes), unit_size_(unit_bytes),
      count_(disk_bytes == 0 ? 0 : (disk_bytes - 1) / unit_bytes + 1), bytes_((count_ + 7) / 8) {}

void Map::set_all() {
    std::fill(bytes_.begin(), bytes_.end(), uint8_t{0xff});
    if ((count_ & 7) != 0)
        bytes_.back() = static_cast<uint8_t>((1u << (count_ & 7)) - 1);
}

uint64_t Map::marked() const {
    return count_ == 0 ? 0 : trak_bits_count(bytes_.data(), count_);
}

uint64_t Map::marked_bytes() const {
    if (count_ == 0)
        return 0;
    uint64_t bytes = marked() * unit_size_;
    return get(count_ - 1) ? bytes - (count_ * unit_size_ - disk_size_) : bytes;
}

Run Map::next(uint64_t from) const {
    Run run = {0, 0};
    if (count_ > 0)
        run.count = trak_bits_run(bytes_.data(), count_, from, &run.first);
    return run;
}

void Map::add(const Map &other) {
    if (!same_shape(other))
        throw Failure("two maps of different shape can't be joined");
    for (size_t i = 0; i < bytes_.size(); i++)
        bytes_[i] |= other.bytes_[i];
}

Map Map::refined(uint64_t unit_bytes) const {
    Map fine(disk_size_, unit_bytes);
    uint64_t ratio = unit_size_ / unit_bytes;
    for (Run run = next(0); run.count > 0; run = next(run.first + run.count)) {
        uint64_t end = std::min((run.first + run.count) * ratio, fine.count());
        for (uint64_t n = run.first * ratio; n < end; n++)
            fine.set(n);
    }
    return fine;
}

std::vector<uint8_t> map_file_bytes(const Map &map, const std::string &run) {
    std::vector<uint8_t> bytes(head_size);
    memcpy(bytes.data(), magic, sizeof(magic));
    put(bytes, 8, map.count());
    put(bytes, 16, map.unit_size());
    put(bytes, 24, map.disk_size());
    memcpy(bytes.data() + 32, run.data(), std::min(run.size(), run_size - 1));
    bytes.insert(bytes.end(), map.bytes().begin(), map.bytes().end());
    std::string sum = sum_of(bytes);
    memcpy(bytes.data() + (head_size - checksum_size), sum.data(),
           std::min(sum.size(), checksum_size));
    return bytes;
}

Map map_from_file(const std::string &path, const std::vector<uint8_t> &bytes,
                  const std::string &run) {
    if (bytes.size() < head_size || memcmp(bytes.data(), magic, sizeof(magic)) != 0)
        throw Failure(fmt::format("{} is no map file", path));
    std::string sum(reinterpret_cast<const char *>(bytes.data()) + (head_size - checksum_size),
                    checksum_size);
    sum.resize(strnlen(sum.data(), sum.size()));
    if (sum != sum_of(bytes))
        throw Failure(fmt::format("{} is damaged: its checksum is wrong", path));
    uint64_t unit = take(bytes, 16), disk = take(bytes, 24);
    if (unit == 0 || disk == 0 || bytes.size() - head_size != ((disk - 1) / unit + 8) / 8)
        throw Failure(fmt::format("{} is damaged: its sizes don't fit", path));
    std::string owner(reinterpret_cast<const char *>(bytes.data()) + 32, run_size);
    owner.resize(strnlen(owner.data(), owner.size()));
    if (!run.empty() && owner != run)
        throw Failure(fmt::format("{} belongs to another run", path));
    Map map(disk, unit);
    std::copy(bytes.begin() + head_size, bytes.end(), map.bytes().begin());
    return map;
}

}  // namespace agent
