// agent/point.cpp: reading a point of a chain, each block compared with its hash
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/restore.h"

#include "agent/hashes.h"

#include <cerrno>
#include <cstring>
#include <deque>

#include <fmt/format.h>

namespace agent {
namespace {

constexpr uint64_t piece_size = 1 << 20;
constexpr size_t piece_count = 16;

struct Piece {
    std::vector<uint8_t> data;
    uint64_t offset = 0, size = 0;
};

struct Shared {
    std::vector<std::unique_ptr<Piece>> pieces;
    std::deque<Piece *> idle, ready;
    int error = 0;
};

class Reader {
  public:
    explicit Reader(const PointJob &job)
        : job_(job), size_(job.point->node.size), block_(job.point->block_size),
          s_(std::make_shared<Shared>()) {
        for (const Manifest *manifest : job.store->chain(job.point->id))
            chain_.add(std::make_unique<HashReader>(job.store->path(manifest->hashes.file), size_,
                                                    manifest->block_size));
        for (size_t i = 0; i < piece_count; i++) {
            s_->pieces.push_back(std::make_unique<Piece>());
            s_->pieces.back()->data.resize(piece_size);
            s_->idle.push_back(s_->pieces.back().get());
        }
        image_ = job.images->open_for_reading(job.store->path(job.point->image.file));
        if (image_->size() < size_)
            throw Failure(fmt::format("{} is shorter than the disk: it is damaged",
                                      job.store->path(job.point->image.file)));
        std::vector<uint8_t> nothing(block_);
        zero_ = hash_block(nothing.data(), block_, job.point->seed);
    }

    PointOutcome run() {
        for (uint64_t offset = 0; offset < size_;) {
            uint64_t length = 0;
            bool data = image_->holds_data(offset, size_ - offset, &length);
            // Blocks are judged whole.
            if (offset + length < size_)
                length = std::max<uint64_t>(length / block_ * block_, block_);
            length = std::min(length, size_ - offset);
            if (data)
                read(offset, length);
            else
                empty(offset, length);
            offset += length;
            progress(offset);
        }
        while (s_->idle.size() < piece_count)
            wait();
        image_->finish();
        return outcome_;
    }

  private:
    void progress(uint64_t done) {
        if (job_.turn)
            job_.turn(done, size_);
    }

    void read(uint64_t offset, uint64_t length) {
        for (uint64_t end = offset + length; offset < end;) {
            while (s_->idle.empty())
                wait();
            Piece *piece = s_->idle.front();
            s_->idle.pop_front();
            piece->offset = offset;
            piece->size = std::min(end - offset, piece_size);
            auto done = [shared = s_, piece](int error) {
                if (error != 0)
                    shared->error = error;
                shared->ready.push_back(piece);
            };
            image_->read(offset, piece->data.data(), (piece->size + 511) / 512 * 512, done);
            offset += piece->size;
            progress(offset);
        }
    }

    void wait() {
        if (s_->ready.empty())
            image_->turn(-1, 500);
        if (s_->error != 0)
            throw Failure(fmt::format("can't read {}: {}", job_.store->path(job_.point->image.file),
                                      strerror(s_->error)),
                          s_->error);
        while (!s_->ready.empty()) {
            Piece *piece = s_->ready.front();
            s_->ready.pop_front();
            take(*piece);
            s_->idle.push_back(piece);
        }
        if (job_.turn)
            check_interrupt();
    }

    void take(const Piece &piece) {
        outcome_.bytes_data += piece.size;
        for (uint64_t at = 0; at < piece.size; at += block_) {
            uint64_t size = std::min<uint64_t>(block_, piece.size - at);
            const uint8_t *data = piece.data.data() + at;
            judge((piece.offset + at) / block_, hash_block(data, size, job_.point->seed),
                  is_zero(data, size));
        }
        if (job_.data)
            job_.data(piece.offset, piece.data.data(), piece.size);
    }

    void empty(uint64_t offset, uint64_t length) {
        for (uint64_t at = offset; at < offset + length; at += block_) {
            Hash hash = zero_;
            if (at + block_ > size_) {
                std::vector<uint8_t> nothing(size_ - at);
                hash = hash_block(nothing.data(), nothing.size(), job_.point->seed);
            }
            judge(at / block_, hash, true);
        }
        if (job_.zeros)
            job_.zeros(offset, length);
    }

    void judge(uint64_t block, const Hash &found, bool zero) {
        Hash wanted = chain_.get(block);
        outcome_.blocks++;
        if (wanted == found || (wanted == no_hash && zero))
            return;
        outcome_.blocks_wrong++;
        uint64_t extent = block * block_ / job_.point->node.extent_size;
        if (outcome_.extents.size() < 64 &&
            (outcome_.extents.empty() || outcome_.extents.back() != extent))
            outcome_.extents.push_back(extent);
    }

    const PointJob &job_;
    uint64_t size_;
    uint32_t block_;
    std::shared_ptr<Shared> s_;
    ChainHashes chain_;
    std::unique_ptr<ImageIo> image_;
    Hash zero_;
    PointOutcome outcome_;
};

}  // namespace

PointOutcome read_point(const PointJob &job) {
    return Reader(job).run();
}

std::string extent_names(const std::vector<uint64_t> &extents) {
    std::string names;
    for (uint64_t extent : extents)
        names += fmt::format("{}{}", names.empty() ? "" : ", ", extent);
    return names;
}

}  // namespace agent
