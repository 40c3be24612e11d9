// os/user/ring.h: the one io_uring, its thread, and a helper for what a ring can't do
// SPDX-License-Identifier: GPL-2.0-only
//
// Threads    any thread submits; only the ring's thread talks to the kernel and runs completions, so
//            an operation's memory passes between threads under one mutex. Completions count as
//            interrupt context. Submitting never waits: what the kernel can't take yet stays queued,
//            so a completion may submit.
#ifndef TRAK_OS_USER_RING_H
#define TRAK_OS_USER_RING_H

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
    // On the ring's thread: bytes moved or a negative errno. The operation is free again.
    void (*done)(Operation *op, int result) = nullptr;
    Operation *next = nullptr;
};

// Starts the threads; a negative errno where the kernel has no ring for us.
int ring_start(unsigned depth, std::string *why);
// Waits for everything submitted, then ends the threads. Nothing is submitted from now on.
void ring_stop();
void ring_submit(Operation *op);

}  // namespace user

#endif
