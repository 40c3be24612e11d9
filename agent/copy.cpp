// agent/copy.cpp: copying marked extents from a snapshot into an image
// SPDX-License-Identifier: GPL-2.0-only
//
// Readers (threads) take pieces of at most a megabyte in rising order, read them and hash their
// blocks. The caller's thread takes the pieces that were read, compares their hashes with the
// chain's, and hands what differs to the image, whose answers it takes in between. A piece's buffer
// is free when its last request was answered. When anything fails, readers end at their next piece.
#include "agent/copy.h"

#include "agent/failure.h"

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace agent {
namespace {

constexpr uint64_t piece_size = 1 << 20;
constexpr size_t piece_count = 16;
constexpr uint64_t alignment = 4096;

struct Free {
    void operator()(void *memory) const { free(memory); }
};

struct Piece {
    std::unique_ptr<uint8_t, Free> data;
    uint64_t offset = 0, size = 0;
    std::vector<Hash> hashes;
    std::vector<bool> zero;
    unsigned waiting = 0;  // requests of the image that read from `data`
};

// What the threads share. Kept by the image's callbacks too, which may come after a failure.
struct Shared {
    std::mutex mutex;
    std::condition_variable free_piece;
    std::deque<Piece *> idle, ready;
    std::vector<std::unique_ptr<Piece>> pieces;
    files::Fd wake;
    bool stop = false;
    int read_error = 0;  // errno
    uint64_t failed_at = 0;
    int write_error = 0;
    // The next piece to be read.
    Run run = {0, 0};
    uint64_t next_bit = 0, run_offset = 0, run_end = 0;
    bool exhausted = false;
    unsigned reading = 0;

    void wake_caller() const {
        uint64_t one = 1;
        (void)!::write(wake.get(), &one, sizeof(one));
    }
};

// The next piece's place; false: there is none. Mutex held.
bool next_place(Shared &s, const Map &map, uint64_t *offset, uint64_t *size) {
    if (s.run_offset >= s.run_end && !s.exhausted) {
        s.run = map.next(s.next_bit);
        if (s.run.count == 0) {
            s.exhausted = true;
        } else {
            s.next_bit = s.run.first + s.run.count;
            s.run_offset = s.run.first * map.unit_size();
            s.run_end = std::min(s.next_bit * map.unit_size(), map.disk_size());
        }
    }
    if (s.exhausted)
        return false;
    // Pieces end at multiples of their size, so that long runs are read in aligned requests.
    uint64_t end = std::min(s.run_end, (s.run_offset / piece_size + 1) * piece_size);
    *offset = s.run_offset;
    *size = end - s.run_offset;
    s.run_offset = end;
    return true;
}

// 0, or an errno.
int read_piece(int fd, Piece &piece) {
    // Beyond the disk's end a read is short; a direct one has to be of whole sectors.
    uint64_t wanted = (piece.size + alignment - 1) / alignment * alignment, got = 0;
    for (uint64_t before = 0; got < piece.size; before = got) {
        ssize_t n =
            pread(fd, piece.data.get() + got, wanted - got, static_cast<off_t>(piece.offset + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno;
        if (n == 0)
            return EIO;
        got += static_cast<uint64_t>(n);
        // A short direct read leaves an odd place: read on from the sector's begin.
        if (got < piece.size)
            got = got / 512 * 512;
        if (got <= before)
            return EIO;
    }
    return 0;
}

void hash_piece(Piece &piece, const CopyJob &job) {
    size_t count = (piece.size + job.block_size - 1) / job.block_size;
    piece.hashes.resize(count);
    piece.zero.resize(count);
    for (size_t i = 0; i < count; i++) {
        uint64_t at = i * job.block_size;
        uint64_t size = std::min<uint64_t>(job.block_size, piece.size - at);
        piece.hashes[i] = hash_block(piece.data.get() + at, size, job.seed);
        piece.zero[i] = is_zero(piece.data.get() + at, size);
    }
}

void read_on(Shared &s, const CopyJob &job) {
    std::unique_lock lock(s.mutex);
    for (;;) {
        s.free_piece.wait(lock, [&] { return s.stop || !s.idle.empty(); });
        uint64_t offset, size;
        if (s.stop || !next_place(s, *job.map, &offset, &size))
            break;
        Piece *piece = s.idle.front();
        s.idle.pop_front();
        lock.unlock();
        piece->offset = offset;
        piece->size = size;
        int error = read_piece(job.source, *piece);
        if (error == 0)
            hash_piece(*piece, job);
        lock.lock();
        if (error != 0 && s.read_error == 0) {
            s.read_error = error;
            s.failed_at = offset;
        }
        if (error != 0)
            break;
        s.ready.push_back(piece);
        s.wake_caller();
    }
    s.reading--;
    s.wake_caller();
}

class Copy {
  public:
    explicit Copy(const CopyJob &job) : job_(job), s_(std::make_shared<Shared>()) {
        if (job.below != nullptr)
            altered_ = Map(job.map->disk_size(), job.map->unit_size());
        s_->wake.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
        if (!s_->wake.valid())
            throw Failure("can't make an event", errno);
        for (size_t i = 0; i < piece_count; i++) {
            auto piece = std::make_unique<Piece>();
            piece->data.reset(
                static_cast<uint8_t *>(aligned_alloc(alignment, piece_size + alignment)));
            if (!piece->data)
                throw Failure("no memory for a copy", ENOMEM);
            s_->idle.push_back(piece.get());
            s_->pieces.push_back(std::move(piece));
        }
        s_->reading = job.readers;
        for (unsigned i = 0; i < job.readers; i++)
            threads_.emplace_back([shared = s_, this] { read_on(*shared, job_); });
    }

    ~Copy() {
        {
            std::lock_guard lock(s_->mutex);
            s_->stop = true;
        }
        s_->free_piece.notify_all();
        for (std::thread &thread : threads_)
            thread.join();
    }

    CopyCounts run() {
        while (!over()) {
            take_ready();
            if (job_.turn)
                job_.turn(done_);
            if (over())
                break;
            if (job_.image != nullptr)
                job_.image->turn(s_->wake.get(), 500);
            else
                wait_for_readers();
            uint64_t count;
            (void)!::read(s_->wake.get(), &count, sizeof(count));
        }
        if (job_.below != nullptr)
            counts_.units_unchanged = job_.map->marked() - altered_.marked();
        return counts_;
    }

  private:
    // Throws what failed.
    bool over() {
        std::lock_guard lock(s_->mutex);
        if (s_->read_error != 0)
            throw Failure(fmt::format("can't read the snapshot at byte {}: {}", s_->failed_at,
                                      strerror(s_->read_error)),
                          s_->read_error);
        if (s_->write_error != 0)
            throw Failure(fmt::format("can't write the image: {}", strerror(s_->write_error)),
                          s_->write_error);
        return s_->reading == 0 && s_->ready.empty() && s_->idle.size() == piece_count;
    }

    void wait_for_readers() const;

    void take_ready() {
        for (;;) {
            Piece *piece;
            {
                std::lock_guard lock(s_->mutex);
                if (s_->ready.empty())
                    return;
                piece = s_->ready.front();
                s_->ready.pop_front();
            }
            take(*piece);
        }
    }

    void take(Piece &piece) {
        counts_.read += piece.size;
        done_ += piece.size;
        uint64_t first = piece.offset / job_.block_size;
        if (job_.seen)
            for (size_t i = 0; i < piece.hashes.size(); i++)
                job_.seen(first + i, piece.hashes[i]);
        if (job_.hashes != nullptr)
            job_.hashes->put(first, piece.hashes.data(), piece.hashes.size());
        // Held here while its parts are submitted.
        piece.waiting = 1;
        if (job_.image != nullptr)
            submit(piece, first);
        release(*s_, &piece);
    }

    enum class Fate { unchanged, zero, data };

    Fate fate(const Piece &piece, size_t i, uint64_t block) {
        if (job_.below == nullptr)
            return piece.zero[i] ? Fate::unchanged : Fate::data;
        Hash before = job_.below->get(block);
        if (before == piece.hashes[i])
            return Fate::unchanged;
        return piece.zero[i] ? Fate::zero : Fate::data;
    }

    // Hands runs of blocks with the same fate to the image.
    void submit(Piece &piece, uint64_t first) {
        size_t count = piece.hashes.size();
        for (size_t i = 0; i < count;) {
            Fate what = fate(piece, i, first + i);
            size_t end = i + 1;
            while (end < count && fate(piece, end, first + end) == what)
                end++;
            uint64_t at = static_cast<uint64_t>(i) * job_.block_size;
            uint64_t size = std::min<uint64_t>(end * job_.block_size, piece.size) - at;
            hand_over(piece, what, at, size);
            i = end;
        }
    }

    void hand_over(Piece &piece, Fate what, uint64_t at, uint64_t size) {
        if (what == Fate::unchanged) {
            (job_.below == nullptr ? counts_.zero : counts_.unchanged) += size;
            return;
        }
        note_altered(piece.offset + at, size);
        {
            std::lock_guard lock(s_->mutex);
            piece.waiting++;
        }
        auto done = [shared = s_, held = &piece](int error) {
            if (error != 0) {
                std::lock_guard lock(shared->mutex);
                shared->write_error = error;
            }
            release(*shared, held);
        };
        if (what == Fate::zero) {
            counts_.zero += size;
            job_.image->zero(piece.offset + at, size, done);
        } else {
            counts_.written += size;
            job_.image->write(piece.offset + at, piece.data.get() + at, size, done);
        }
    }

    void note_altered(uint64_t offset, uint64_t size) {
        if (job_.below == nullptr)
            return;
        uint64_t unit = altered_.unit_size();
        for (uint64_t n = offset / unit; n <= (offset + size - 1) / unit; n++)
            altered_.set(n);
    }

    static void release(Shared &shared, Piece *piece) {
        std::lock_guard lock(shared.mutex);
        if (--piece->waiting > 0)
            return;
        shared.idle.push_back(piece);
        // All of them: one that finds no place to read ends, and takes no piece.
        shared.free_piece.notify_all();
    }

    const CopyJob &job_;
    std::shared_ptr<Shared> s_;
    std::vector<std::thread> threads_;
    CopyCounts counts_;
    Map altered_;  // units that differ from `below`
    uint64_t done_ = 0;
};

void Copy::wait_for_readers() const {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(s_->wake.get(), &set);
    timeval time = {0, 500000};
    select(s_->wake.get() + 1, &set, nullptr, nullptr, &time);
}

}  // namespace

CopyCounts copy_extents(const CopyJob &job) {
    return Copy(job).run();
}

}  // namespace agent
