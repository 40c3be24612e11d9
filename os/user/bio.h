// os/user/bio.h: a request, and its way to the file behind a disk
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_USER_BIO_H
#define TRAK_OS_USER_BIO_H

#include <sys/uio.h>

#include <atomic>
#include <cstdint>

#include "os/bio.h"
#include "os/user/ring.h"
#include "os/user/user.h"

namespace user {

struct Backing;

// What is under way for a bio that a disk has taken: one operation of the ring at a time, or a part of
// one that moves several bios' data (plug.h).
struct Transfer : Operation {
    enum Stage { kFlushBefore, kData, kFlushAfter };
    os_bio *bio = nullptr;
    Backing *backing = nullptr;
    Stage stage = kData;
    unsigned retries = 0;
    iovec *pieces = nullptr;  // what is still to move, adjoining pages as one piece
    unsigned piece_count = 0;
    std::uint64_t at = 0;    // byte offset of the next byte
    std::uint64_t left = 0;  // bytes
    iovec bounce{};          // an aligned copy of the whole data, while it has one
};

// A node that a bio came to and has not ended on. A node may stand on another.
struct Entry {
    os_disk *disk;
    unsigned turn;
    Entry *outer;  // the node from which it was passed on; null: none
};

// Before a node gets the bio, which is counted there until it ends: 0 or -ENOMEM.
int enter_node(os_bio *bio, os_disk *disk);
void leave_nodes(os_bio *bio);

}  // namespace user

struct os_bio {
    std::atomic<int> references{1};
    os_bdev *bdev = nullptr;
    std::uint64_t sector = 0;
    std::uint32_t size = 0;
    std::uint32_t rw = 0;
    std::uint16_t idx = 0;
    bool uptodate = false;
    std::uint32_t vcnt = 0;
    std::uint32_t max_vecs = 0;
    void *data = nullptr;
    os_bio_end_io_fn end_io = nullptr;
    os_bio_destructor_fn destructor = nullptr;
    user::Done program_done = nullptr;  // of a request that a program sent
    user::Entry *entered = nullptr;     // the innermost
    user::Entry outermost{};            // needs no memory of its own
    user::Transfer transfer;

    // max_vecs of each follow in the same memory.
    os_bio_vec *vecs() { return reinterpret_cast<os_bio_vec *>(this + 1); }
    iovec *iovecs() { return reinterpret_cast<iovec *>(vecs() + max_vecs); }
};

#endif
