// agent/hashes.cpp: the hash of each block that a backup holds
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/hashes.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace agent {
namespace {

constexpr uint64_t head_size = 4096;
constexpr char magic[8] = {'T', 'R', 'A', 'K', 'H', 'S', 'H', '1'};

struct Head {
    char magic[8];
    uint8_t block_size[8], disk_size[8];  // little-endian
};

void put(uint8_t (&field)[8], uint64_t number) {
    for (size_t i = 0; i < 8; i++)
        field[i] = static_cast<uint8_t>(number >> (8 * i));
}

Head head_of(uint64_t disk_size, uint32_t block_size) {
    Head head = {};
    memcpy(head.magic, magic, sizeof(magic));
    put(head.block_size, block_size);
    put(head.disk_size, disk_size);
    return head;
}

}  // namespace

HashWriter::HashWriter(const std::string &path, uint64_t disk_size, uint32_t block_size)
    : path_(path), fd_(files::open_file(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600)) {
    uint64_t blocks = (disk_size - 1) / block_size + 1;
    if (ftruncate(fd_.get(), static_cast<off_t>(head_size + blocks * sizeof(Hash))) < 0)
        throw Failure(fmt::format("can't size {}: {}", path, strerror(errno)), errno);
    Head head = head_of(disk_size, block_size);
    files::write_at(fd_.get(), &head, sizeof(head), 0, path_);
}

void HashWriter::put(uint64_t first_block, const Hash *hashes, size_t count) {
    files::write_at(fd_.get(), hashes, count * sizeof(Hash), head_size + first_block * sizeof(Hash),
                    path_);
}

void HashWriter::sync() {
    files::sync_file(fd_.get(), path_);
}

HashReader::HashReader(const std::string &path, uint64_t disk_size, uint32_t block_size)
    : path_(path), fd_(files::open_file(path, O_RDONLY, 0)),
      blocks_((disk_size - 1) / block_size + 1), hashes_(window) {
    Head found = {}, wanted = head_of(disk_size, block_size);
    if (files::read_at(fd_.get(), &found, sizeof(found), 0, path_) != sizeof(found) ||
        memcmp(&found, &wanted, sizeof(found)) != 0)
        throw Failure(fmt::format("{} is damaged: its head does not fit the backup", path));
}

void HashReader::load(uint64_t block) {
    if (loaded_ > 0 && block >= first_ && block < first_ + loaded_)
        return;
    first_ = block / window * window;
    loaded_ = std::min(window, blocks_ - first_);
    size_t got = files::read_at(fd_.get(), hashes_.data(), loaded_ * sizeof(Hash),
                                head_size + first_ * sizeof(Hash), path_);
    if (got != loaded_ * sizeof(Hash)) {
        loaded_ = 0;
        throw Failure(fmt::format("{} is damaged: it is too short", path_));
    }
}

Hash HashReader::get(uint64_t block) {
    if (block >= blocks_)
        return no_hash;
    load(block);
    return hashes_[block - first_];
}

uint64_t HashReader::next(uint64_t from) {
    for (uint64_t block = from; block < blocks_; block++) {
        if (block == from || block % window == 0) {
            off_t at =
                lseek(fd_.get(), static_cast<off_t>(head_size + block * sizeof(Hash)), SEEK_DATA);
            if (at < 0 && errno == ENXIO)
                return blocks_;
            if (at > 0) {
                uint64_t data = (static_cast<uint64_t>(at) - head_size) / sizeof(Hash);
                block = std::max(block, data);
            }
        }
        if (get(block) != no_hash)
            return block;
    }
    return blocks_;
}

Hash ChainHashes::get(uint64_t block) {
    for (auto reader = readers_.rbegin(); reader != readers_.rend(); ++reader) {
        Hash hash = (*reader)->get(block);
        if (hash != no_hash)
            return hash;
    }
    return no_hash;
}

}  // namespace agent
