// agent/hashes.h: the hash of each block that a backup holds
// SPDX-License-Identifier: GPL-2.0-only
//
// File     4096 bytes of head ("TRAKHSH1", block size, disk size, the rest 0), then 16 bytes for each
//          block of the disk, at 4096 + 16 * number. Zeros: the backup does not hold the block. The
//          file is sparse.
#pragma once

#include "agent/checksum.h"
#include "agent/files.h"

#include <memory>
#include <string>
#include <vector>

namespace agent {

class HashWriter {
  public:
    HashWriter(const std::string &path, uint64_t disk_size, uint32_t block_size);
    void put(uint64_t first_block, const Hash *hashes, size_t count);
    void sync();

  private:
    std::string path_;
    files::Fd fd_;
};

// Memory: one window of the file. Cheap where it is asked in rising order.
class HashReader {
  public:
    // Throws Failure where the head is not that of this disk size and block size.
    HashReader(const std::string &path, uint64_t disk_size, uint32_t block_size);
    Hash get(uint64_t block);
    // The first block at or after `from` that has a hash, or `blocks()`.
    uint64_t next(uint64_t from);
    uint64_t blocks() const { return blocks_; }

  private:
    void load(uint64_t block);
    static constexpr uint64_t window = 1024;
    std::string path_;
    files::Fd fd_;
    uint64_t blocks_, first_ = 0, loaded_ = 0;
    std::vector<Hash> hashes_;
};

// The hashes of a point: those of its backup, or of the nearest one below that has the block.
class ChainHashes {
  public:
    // From the full backup upwards.
    void add(std::unique_ptr<HashReader> reader) { readers_.push_back(std::move(reader)); }
    // no_hash: the chain does not hold the block (it was free at the full backup).
    Hash get(uint64_t block);
    bool empty() const { return readers_.empty(); }

  private:
    std::vector<std::unique_ptr<HashReader>> readers_;
};

}  // namespace agent
