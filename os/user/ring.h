// os/user/ring.h: the platform's io_uring, its thread, and a helper for what a ring can't do
// SPDX-License-Identifier: GPL-2.0-only
//
// Threads    any thread submits; only the ring's thread talks to the kernel and runs completions, so
//            an operation's memory passes between threads under one mutex. Completions count as
//            interrupt context. Submitting never waits: what the kernel can't take yet stays queued,
//            so a completion may submit. A thread with a ring of its own (own_io.h) keeps what it
//            submits to itself.
#ifndef TRAK_OS_USER_RING_H
#define TRAK_OS_USER_RING_H

#include <liburing.h>
#include <sys/uio.h>

#include <cstdint>
#include <string>

namespace user {

struct Operation {
    enum Kind { kRead, kWrite, kSync, kAllocate, kHelper };
    Kind kind = kRead;
    int fd = -1;
    const iovec *iov = nullptr;  // of kRead and kWrite; stays the submitter's
    unsigned iov_count = 0;
    int flags = 0;  // RWF_* of kWrite, FALLOC_FL_* of kAllocate
    std::uint64_t offset = 0;
    std::uint64_t length = 0;  // of kAllocate
    // kHelper: runs on the helper thread, may block; its value is the result.
    int (*help)(Operation *op) = nullptr;
    int result = 0;  // of the helper, on its way to done
    // On the ring's thread, or on the submitter's that has a ring: bytes moved or a negative errno. The
    // operation is free again.
    void (*done)(Operation *op, int result) = nullptr;
    Operation *next = nullptr;
};

// Operations in the order of their arrival. Whoever has it owns the operations.
struct Operations {
    Operation *first = nullptr;
    Operation *last = nullptr;
    void append(Operation *op) {
        op->next = nullptr;
        (last ? last->next : first) = op;
        last = op;
    }
    Operation *take() {
        Operation *op = first;
        first = op->next;
        if (!first)
            last = nullptr;
        return op;
    }
    void append_all(Operations *other) {
        if (!other->first)
            return;
        (last ? last->next : first) = other->first;
        last = other->last;
        *other = {};
    }
};

// Starts the threads; a negative errno where the kernel has no ring for us.
int ring_start(unsigned depth, std::string *why);
// Waits for everything submitted, then ends the threads. Nothing is submitted from now on.
void ring_stop();
void ring_submit(Operation *op);
// All of them, which costs one look at the ring's thread; the list is empty afterwards.
void ring_submit_all(Operations *list);
// Operations submitted since the start.
std::uint64_t ring_submitted();

// Parts that a thread's own ring shares.
int ring_make(io_uring *uring,
              unsigned entries);  // a negative errno where the kernel has none for us
void ring_prepare(io_uring_sqe *sqe, Operation *op);
void ring_finish(Operation *op, int result);   // runs its completion
void ring_enter(io_uring *uring, bool sleep);  // hands over; sleep: until there is a completion

// Takes the completions that are there and tells each: ended(operation, result). Their places in the
// ring are free again before the first is told, since that may submit more.
template <typename Ended> void ring_reap(io_uring *uring, Ended ended) {
    constexpr unsigned kBatch = 64;
    io_uring_cqe *cqes[kBatch];
    unsigned count;
    while ((count = io_uring_peek_batch_cqe(uring, cqes, kBatch)) != 0) {
        Operation *ops[kBatch];
        int results[kBatch];
        for (unsigned i = 0; i < count; i++) {
            ops[i] = static_cast<Operation *>(io_uring_cqe_get_data(cqes[i]));
            results[i] = cqes[i]->res;
        }
        io_uring_cq_advance(uring, count);
        for (unsigned i = 0; i < count; i++)
            ended(ops[i], results[i]);
    }
}

}  // namespace user

#endif
