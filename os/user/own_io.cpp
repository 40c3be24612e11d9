// os/user/own_io.cpp: a thread that serves its own I/O
// SPDX-License-Identifier: GPL-2.0-only
//
// The ring is the thread's alone: submitting is a store to memory, one system call hands over all that
// was submitted since the last one and takes what is done, and no lock is taken nor another thread
// woken.
//
// What is under way must end although its thread may be asleep in the driver, for a lock whose holder
// waits for just that I/O. So whatever sleeps or yields in the platform (sleep_on, os_yield) serves the
// ring while it does. It sleeps in slices then: such sleeps are rare, and short slices cost less than a
// ring that a futex can wake.
#include "os/user/own_io.h"

#include <errno.h>
#include <poll.h>

#include <memory>
#include <new>

#include "os/user/sync.h"
#include "os/user/task.h"
#include "os/user/user.h"

namespace user {

struct OwnRing {
    io_uring uring{};
    unsigned depth = 0;
    unsigned at_kernel = 0;  // taken and not ended
    bool polling = false;    // the file that is waited for has a poll under way
    bool readable = false;
};

namespace {

constexpr long kSlice = 500'000;  // ns

// What is under way besides operations.
Operation poll_mark;

// Room for one more entry: handing over what is there makes it.
io_uring_sqe *room(OwnRing &ring) {
    io_uring_sqe *sqe = io_uring_get_sqe(&ring.uring);
    if (sqe)
        return sqe;
    ring_enter(&ring.uring, false);
    return io_uring_get_sqe(&ring.uring);
}

void end_own(OwnRing &ring, Operation *op, int result) {
    if (op == &poll_mark) {
        ring.polling = false;
        ring.readable = true;  // or in error, which a read tells
    } else {
        ring.at_kernel--;
        ring_finish(op, result);
    }
}

void serve_own(OwnRing &ring, bool sleep) {
    if (sleep || io_uring_sq_ready(&ring.uring))
        ring_enter(&ring.uring, sleep);
    ring_reap(&ring.uring, [&ring](Operation *op, int result) { end_own(ring, op, result); });
}

void start_poll(OwnRing &ring, int fd) {
    io_uring_sqe *sqe = room(ring);
    if (!sqe)
        return;
    io_uring_prep_poll_add(sqe, fd, POLLIN);
    io_uring_sqe_set_data(sqe, &poll_mark);
    ring.polling = true;
}

}  // namespace

bool own_take(Operation *op) {
    OwnRing *ring = current().own_ring;
    if (!ring || op->kind == Operation::kHelper || ring->at_kernel == ring->depth)
        return false;
    io_uring_sqe *sqe = room(*ring);
    if (!sqe)
        return false;
    ring_prepare(sqe, op);
    ring->at_kernel++;
    return true;
}

void own_serve() {
    os_task &task = current();
    if (task.own_ring && task.own_ring->at_kernel && !task.in_interrupt)
        serve_own(*task.own_ring, false);
}

bool own_sleep_on(std::uint32_t *word, std::uint32_t value) {
    OwnRing *ring = current().own_ring;
    if (!ring || !ring->at_kernel)
        return false;
    serve_own(*ring, false);
    futex_wait_for(word, value, kSlice);
    return true;
}

OwnIo::OwnIo(unsigned depth) {
    auto ring = std::unique_ptr<OwnRing>(depth ? new (std::nothrow) OwnRing : nullptr);
    if (!ring || ring_make(&ring->uring, depth) < 0)
        return;
    io_uring_register_ring_fd(&ring->uring);  // saves a look-up per call where the kernel knows it
    ring->depth = depth;
    ring_ = ring.release();
    current().own_ring = ring_;
    current().plug.holds = true;
}

OwnIo::~OwnIo() {
    if (!ring_)
        return;
    drain();
    current().plug.holds = false;
    current().own_ring = nullptr;
    io_uring_queue_exit(&ring_->uring);
    delete ring_;
}

void OwnIo::drain() {
    if (!ring_)
        return;
    plug_pull();
    while (ring_->at_kernel)
        serve_own(*ring_, true);
}

bool OwnIo::serve(int fd, bool wait) {
    if (!ring_) {
        pollfd one{fd, POLLIN, 0};
        return wait && poll(&one, 1, -1) > 0;
    }
    plug_pull();
    if (wait && !ring_->polling && !ring_->readable)
        start_poll(*ring_, fd);
    serve_own(*ring_, wait && !ring_->readable);
    bool readable = wait && ring_->readable;
    if (readable)
        ring_->readable = false;
    return readable;
}

}  // namespace user
