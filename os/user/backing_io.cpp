// os/user/backing_io.cpp: the way of a request to the file behind a disk
// SPDX-License-Identifier: GPL-2.0-only
//
// A bio passes up to three stages, each one or more operations of the ring:
//     1. OS_BIO_FLUSH: fdatasync of the file;
//     2. its data: read, write (OS_BIO_FUA: RWF_DSYNC), punch a hole, write zeroes;
//     3. OS_BIO_FUA of a discard or of zeroes: fdatasync.
// Pieces of memory that adjoin go as one. What direct I/O can't take as it lies is copied through an
// aligned buffer. A short transfer goes on where it stopped; one that moves nothing, or fails, ends
// the bio with -EIO (the log says why), except -EOPNOTSUPP for what the file can't do.
//
// The first step runs in the submitter, all others on the ring's thread; the bio belongs to whoever
// has the operation. Transfers of data that a thread holds back for a moment may go as one (plug.cpp).
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "os/log.h"
#include "os/user/bio.h"
#include "os/user/device.h"
#include "os/user/memory.h"
#include "os/user/plug.h"
#include "os/user/ring.h"

namespace user {

namespace {

constexpr unsigned kRetries = 16;
constexpr unsigned kErrorsLogged = 20;  // of one disk; then silence, as a kernel limits its rate
constexpr unsigned kPiecesAtOnce = 1024;
constexpr std::size_t kPage = OS_PAGE_SIZE;
constexpr std::uint32_t kNoData = OS_BIO_DISCARD | OS_BIO_ZEROES;
static_assert(kPiecesAtOnce <= IOV_MAX);

void run_stage(Transfer *t);

bool is_write(const Transfer *t) {
    return (t->bio->rw & (OS_BIO_WRITE | kNoData)) != 0;
}

void end(Transfer *t, int error) {
    os_bio *bio = t->bio;
    if (t->bounce.iov_base) {
        if (!error && !is_write(t)) {
            const char *from = static_cast<const char *>(t->bounce.iov_base);
            std::size_t left = t->bounce.iov_len;
            for (std::uint32_t i = bio->idx; i < bio->vcnt && left; i++) {
                const os_bio_vec &vec = bio->vecs()[i];
                std::size_t len = std::min<std::size_t>(vec.len, left);
                memcpy(reinterpret_cast<char *>(vec.page) + vec.offset, from, len);
                from += len;
                left -= len;
            }
        }
        free(t->bounce.iov_base);
        t->bounce = {};
    }
    if (!error) {
        bio->size = 0;
        bio->idx = static_cast<std::uint16_t>(bio->vcnt);
    }
    os_bio_endio(bio, error);
}

void fail(Transfer *t, int error) {
    if (error != -EOPNOTSUPP &&
        t->backing->errors_logged.fetch_add(1, std::memory_order_relaxed) < kErrorsLogged)
        os_printk("<3>I/O error, dev %s, sector %llu, rw=%u, errno=%d\n", t->backing->name.c_str(),
                  static_cast<unsigned long long>(t->at >> OS_SECTOR_SHIFT),
                  t->bio->rw & OS_BIO_WRITE, error);
    end(t, error == -EOPNOTSUPP ? error : -EIO);
}

void next_stage(Transfer *t) {
    if (t->stage == Transfer::kFlushBefore && t->left) {
        t->stage = Transfer::kData;
        run_stage(t);
    } else if (t->stage == Transfer::kData && (t->bio->rw & kNoData) && (t->bio->rw & OS_BIO_FUA)) {
        t->stage = Transfer::kFlushAfter;
        run_stage(t);
    } else {
        end(t, 0);
    }
}

// True when the operation shall be tried again.
bool is_passing(Transfer *t, int result) {
    return (result == -EINTR || result == -EAGAIN) && t->retries++ < kRetries;
}

void synced(Operation *op, int result) {
    Transfer *t = static_cast<Transfer *>(op);
    if (result >= 0)
        next_stage(t);
    else if (is_passing(t, result))
        ring_submit(t);
    else
        fail(t, result);
}

void sync(Transfer *t) {
    t->kind = Operation::kSync;
    t->done = synced;
    ring_submit(t);
}

// Cuts what was moved off the pieces.
void advance(Transfer *t, std::size_t moved) {
    t->at += moved;
    t->left -= moved;
    while (moved) {
        std::size_t piece = std::min(moved, t->pieces->iov_len);
        t->pieces->iov_base = static_cast<char *>(t->pieces->iov_base) + piece;
        t->pieces->iov_len -= piece;
        moved -= piece;
        if (!t->pieces->iov_len) {
            t->pieces++;
            t->piece_count--;
        }
    }
}

void move(Transfer *t);

void moved(Operation *op, int result) {
    Transfer *t = static_cast<Transfer *>(op);
    if (result > 0) {
        advance(t, static_cast<std::size_t>(result));
        t->retries = 0;
        if (t->left)
            move(t);
        else
            next_stage(t);
    } else if (is_passing(t, result)) {
        move(t);
    } else {
        fail(t, result ? result : -EIO);
    }
}

void ready_to_move(Transfer *t) {
    t->kind = is_write(t) ? Operation::kWrite : Operation::kRead;
    t->flags = is_write(t) && (t->bio->rw & OS_BIO_FUA) ? RWF_DSYNC : 0;
    t->iov = t->pieces;
    t->iov_count = std::min(t->piece_count, kPiecesAtOnce);
    t->offset = t->at;
    t->done = moved;
}

void move(Transfer *t) {
    ready_to_move(t);
    ring_submit(t);
}

// The bio's pages as pieces of memory, those that adjoin as one. False when they are fewer than its size.
bool gather(Transfer *t) {
    os_bio *bio = t->bio;
    std::uint64_t left = t->left;
    t->pieces = bio->iovecs();
    t->piece_count = 0;
    for (std::uint32_t i = bio->idx; i < bio->vcnt && left; i++) {
        const os_bio_vec &vec = bio->vecs()[i];
        char *base = reinterpret_cast<char *>(vec.page) + vec.offset;
        std::size_t len = std::min<std::uint64_t>(vec.len, left);
        iovec *last = t->piece_count ? &t->pieces[t->piece_count - 1] : nullptr;
        if (last && static_cast<char *>(last->iov_base) + last->iov_len == base)
            last->iov_len += len;
        else if (len)
            t->pieces[t->piece_count++] = {base, len};
        left -= len;
    }
    return left == 0;
}

bool needs_bounce(const Transfer *t) {
    if (!t->backing->direct)
        return false;
    for (unsigned i = 0; i < t->piece_count; i++) {
        auto where = reinterpret_cast<std::uintptr_t>(t->pieces[i].iov_base);
        if ((where | t->pieces[i].iov_len) & (t->backing->memory_align - 1))
            return true;
    }
    return false;
}

bool make_bounce(Transfer *t) {
    if (heap_is_empty.load(std::memory_order_relaxed))
        return false;
    std::size_t room = (t->left + kPage - 1) / kPage * kPage;
    char *to = static_cast<char *>(aligned_alloc(std::max(kPage, t->backing->memory_align), room));
    if (!to)
        return false;
    t->bounce = {to, t->left};
    if (is_write(t)) {
        for (unsigned i = 0; i < t->piece_count; i++) {
            memcpy(to, t->pieces[i].iov_base, t->pieces[i].iov_len);
            to += t->pieces[i].iov_len;
        }
    }
    t->pieces[0] = t->bounce;
    t->piece_count = 1;
    return true;
}

void start_data(Transfer *t) {
    if (!gather(t))
        fail(t, -EINVAL);
    else if (needs_bounce(t) && !make_bounce(t))
        fail(t, -ENOMEM);
    else {
        ready_to_move(t);
        if (!plug_hold(t))
            ring_submit(t);
    }
}

// ---- discard and zeroes ---------------------------------------------------------------------------

// Writes zeroes with plain writes, where the file has no better way. Helper thread.
int write_zeroes(Transfer *t) {
    constexpr std::size_t kRoom = std::size_t{1} << 20;
    char *zeroes = static_cast<char *>(aligned_alloc(kPage, kRoom));
    if (!zeroes)
        return -ENOMEM;
    memset(zeroes, 0, kRoom);
    int rc = 0;
    std::uint64_t at = t->at, left = t->left;
    while (left && !rc) {
        ssize_t put = pwrite(t->backing->fd, zeroes, std::min<std::uint64_t>(left, kRoom),
                             static_cast<off_t>(at));
        if (put > 0) {
            at += static_cast<std::uint64_t>(put);
            left -= static_cast<std::uint64_t>(put);
        } else if (put == 0 || errno != EINTR) {
            rc = put ? -errno : -EIO;
        }
    }
    free(zeroes);
    return rc;
}

int help_without_data(Operation *op) {
    Transfer *t = static_cast<Transfer *>(op);
    bool zeroes = (t->bio->rw & OS_BIO_ZEROES) != 0;
    if (!t->backing->block)
        return zeroes ? write_zeroes(t) : -EOPNOTSUPP;
    std::uint64_t range[2] = {t->at, t->left};
    return ioctl(t->backing->fd, zeroes ? BLKZEROOUT : BLKDISCARD, range) ? -errno : 0;
}

void helped(Operation *op, int result) {
    Transfer *t = static_cast<Transfer *>(op);
    if (result)
        fail(t, result);
    else
        next_stage(t);
}

void allocated(Operation *op, int result) {
    Transfer *t = static_cast<Transfer *>(op);
    if (result >= 0) {
        next_stage(t);
    } else if (is_passing(t, result)) {
        ring_submit(t);
    } else if (result == -EOPNOTSUPP && (t->flags & FALLOC_FL_ZERO_RANGE)) {
        t->flags = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE;  // reads as zeroes too
        ring_submit(t);
    } else if (result == -EOPNOTSUPP) {
        t->kind = Operation::kHelper;
        t->help = help_without_data;
        t->done = helped;
        ring_submit(t);
    } else {
        fail(t, result);
    }
}

void start_without_data(Transfer *t) {
    bool zeroes = (t->bio->rw & OS_BIO_ZEROES) != 0;
    t->kind = Operation::kAllocate;
    t->flags = (zeroes ? FALLOC_FL_ZERO_RANGE : FALLOC_FL_PUNCH_HOLE) | FALLOC_FL_KEEP_SIZE;
    t->offset = t->at;
    t->length = t->left;
    t->done = allocated;
    ring_submit(t);
}

void run_stage(Transfer *t) {
    t->retries = 0;
    if (t->stage != Transfer::kData)
        sync(t);
    else if (t->bio->rw & kNoData)
        start_without_data(t);
    else
        start_data(t);
}

}  // namespace

void submit_to_backing(os_bdev *bdev, os_bio *bio) {
    Transfer *t = &bio->transfer;
    *t = Transfer();
    t->bio = bio;
    bool write = (bio->rw & (OS_BIO_WRITE | kNoData)) != 0 && bio->size;
    Backing *writable = bdev->for_writes.load();
    t->backing = write || writable ? writable : bdev->for_reads.load();
    if (!t->backing) {
        os_bio_endio(bio, -EIO);
        return;
    }
    t->fd = t->backing->fd;
    t->at = bio->sector << OS_SECTOR_SHIFT;
    t->left = bio->size;
    if (bio->rw & OS_BIO_FLUSH)
        t->stage = Transfer::kFlushBefore;
    else if (!t->left) {
        end(t, 0);
        return;
    }
    run_stage(t);
}

}  // namespace user
