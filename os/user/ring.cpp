// os/user/ring.cpp: the ring's thread
// SPDX-License-Identifier: GPL-2.0-only
//
// Submitters append to `queued` under the mutex. The ring's thread takes the whole list at once, so a
// burst of requests costs one system call, and sleeps in the kernel for a completion; a read of an
// eventfd is always under way, and a submitter who finds the thread asleep writes to it. Only the
// first one does: it takes the `asleep` mark back.
//
// At most `depth` operations are at the kernel; the submission queue has room for all of them and the
// wake-up read, so a full queue can't happen, and the completion queue is twice as large.
#include "os/user/ring.h"

#include <errno.h>
#include <linux/falloc.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <thread>

#include "os/user/own_io.h"
#include "os/user/sync.h"
#include "os/user/task.h"

namespace user {

namespace {

struct Ring {
    // Constant while the threads run.
    int wake_fd = -1;
    unsigned depth = 0;
    std::thread thread;
    std::thread helper;

    Mutex mutex;
    Operations queued USER_GUARDED_BY(mutex);
    bool asleep USER_GUARDED_BY(mutex) = false;
    bool stopping USER_GUARDED_BY(mutex) = false;
    std::uint64_t submitted USER_GUARDED_BY(mutex) = 0;
    Condition started;
    int made USER_GUARDED_BY(mutex) = 1;  // 0 or a negative errno once the kernel has answered

    Mutex helper_mutex;
    Condition helper_wanted;
    Operations helper_queue USER_GUARDED_BY(helper_mutex);
    bool helper_stopping USER_GUARDED_BY(helper_mutex) = false;

    // The ring thread's own.
    io_uring uring{};
    Operations waiting;  // taken, not yet at the kernel
    unsigned at_kernel = 0;
    unsigned at_helper = 0;
    bool wake_read_active = false;
    std::uint64_t wake_count = 0;
};

// Never destroyed by an exit without a stop: its threads still use it then.
Ring *the_ring = nullptr;

// Completions of the helper come back through the queue under this kind.
constexpr Operation::Kind kHelped = static_cast<Operation::Kind>(100);

void enqueue(Ring &ring, Operations *list) {
    bool wake;
    {
        Guard held(ring.mutex);
        for (Operation *op = list->first; op; op = op->next)
            ring.submitted++;
        ring.queued.append_all(list);
        wake = ring.asleep;
        ring.asleep = false;
    }
    if (!wake)
        return;
    std::uint64_t one = 1;
    while (write(ring.wake_fd, &one, sizeof(one)) < 0 && errno == EINTR)
        ;
}

void enqueue(Ring &ring, Operation *op) {
    Operations one;
    one.append(op);
    enqueue(ring, &one);
}

void run_helper(Ring &ring) {
    prctl(PR_SET_NAME, "user-io-help");
    for (;;) {
        Operation *op;
        {
            Guard held(ring.helper_mutex);
            while (!ring.helper_queue.first && !ring.helper_stopping)
                ring.helper_wanted.wait(ring.helper_mutex);
            if (!ring.helper_queue.first)
                return;
            op = ring.helper_queue.take();
        }
        op->result = op->help(op);
        op->kind = kHelped;
        enqueue(ring, op);
    }
}

void give_to_helper(Ring &ring, Operation *op) {
    ring.at_helper++;
    Guard held(ring.helper_mutex);
    ring.helper_queue.append(op);
    ring.helper_wanted.notify_all();
}

// Moves what is waiting towards the kernel.
void feed(Ring &ring) {
    if (!ring.wake_read_active) {
        io_uring_sqe *sqe = io_uring_get_sqe(&ring.uring);
        io_uring_prep_read(sqe, ring.wake_fd, &ring.wake_count, sizeof(ring.wake_count), 0);
        io_uring_sqe_set_data(sqe, nullptr);
        ring.wake_read_active = true;
    }
    while (ring.waiting.first && ring.at_kernel < ring.depth) {
        Operation *op = ring.waiting.take();
        if (op->kind == kHelped) {
            ring.at_helper--;
            ring_finish(op, op->result);
        } else if (op->kind == Operation::kHelper) {
            give_to_helper(ring, op);
        } else {
            ring_prepare(io_uring_get_sqe(&ring.uring), op);
            ring.at_kernel++;
        }
    }
}

void reap(Ring &ring) {
    ring_reap(&ring.uring, [&ring](Operation *op, int result) {
        if (!op) {
            ring.wake_read_active = false;
            return;
        }
        ring.at_kernel--;
        ring_finish(op, result);
    });
}

// True when the thread may sleep for a completion; marks it asleep.
bool may_sleep(Ring &ring, bool *ended) {
    Guard held(ring.mutex);
    bool idle = !ring.queued.first && (!ring.waiting.first || ring.at_kernel == ring.depth);
    *ended = ring.stopping && idle && !ring.waiting.first && !ring.at_kernel && !ring.at_helper;
    ring.asleep = idle && !*ended;
    return ring.asleep;
}

void run_ring(Ring &ring) {
    prctl(PR_SET_NAME, "user-io");
    int rc = ring_make(&ring.uring, ring.depth + 1);
    {
        Guard held(ring.mutex);
        ring.made = rc;
        ring.started.notify_all();
    }
    if (rc < 0)
        return;
    io_uring_register_ring_fd(&ring.uring);  // saves a look-up per call where the kernel knows it
    for (bool ended = false; !ended;) {
        feed(ring);
        bool sleep = may_sleep(ring, &ended);
        ring_enter(&ring.uring, sleep);
        {
            Guard held(ring.mutex);
            ring.asleep = false;
            ring.waiting.append_all(&ring.queued);
        }
        reap(ring);
    }
    io_uring_queue_exit(&ring.uring);
}

int wait_until_made(Ring &ring) {
    Guard held(ring.mutex);
    while (ring.made > 0)
        ring.started.wait(ring.mutex);
    return ring.made;
}

}  // namespace

void ring_prepare(io_uring_sqe *sqe, Operation *op) {
    switch (op->kind) {
    case Operation::kRead:
        if (op->iov_count == 1)
            io_uring_prep_read(sqe, op->fd, op->iov->iov_base,
                               static_cast<unsigned>(op->iov->iov_len), op->offset);
        else
            io_uring_prep_readv(sqe, op->fd, op->iov, op->iov_count, op->offset);
        break;
    case Operation::kWrite:
        if (op->iov_count == 1)
            io_uring_prep_write(sqe, op->fd, op->iov->iov_base,
                                static_cast<unsigned>(op->iov->iov_len), op->offset);
        else
            io_uring_prep_writev(sqe, op->fd, op->iov, op->iov_count, op->offset);
        sqe->rw_flags = op->flags;
        break;
    case Operation::kSync:
        io_uring_prep_fsync(sqe, op->fd, IORING_FSYNC_DATASYNC);
        break;
    default:
        io_uring_prep_fallocate(sqe, op->fd, op->flags, static_cast<off_t>(op->offset),
                                static_cast<off_t>(op->length));
        break;
    }
    io_uring_sqe_set_data(sqe, op);
}

void ring_finish(Operation *op, int result) {
    os_task &task = current();
    task.in_interrupt = true;
    op->done(op, result);
    task.in_interrupt = false;
}

int ring_make(io_uring *uring, unsigned entries) {
    // The thread that makes the ring is its only submitter: completions then wait for that thread to
    // ask for them. Older kernels know less of this.
    const unsigned wanted[] = {IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN |
                                   IORING_SETUP_TASKRUN_FLAG,
                               IORING_SETUP_COOP_TASKRUN | IORING_SETUP_TASKRUN_FLAG, 0};
    int rc = -EINVAL;
    for (unsigned flags : wanted) {
        io_uring_params params{};
        params.flags = flags;
        rc = io_uring_queue_init_params(entries, uring, &params);
        if (rc != -EINVAL)
            break;
    }
    return rc;
}

void ring_enter(io_uring *uring, bool sleep) {
    int rc = sleep ? io_uring_submit_and_wait(uring, 1) : io_uring_submit_and_get_events(uring);
    if (rc >= 0 || rc == -EINTR)
        return;
    // Short of memory or completions not yet taken: both pass. Anything else is a bug of ours.
    if (rc != -EAGAIN && rc != -EBUSY && rc != -ENOMEM && rc != -ETIME)
        os_bug(__FILE__, __LINE__, "io_uring_enter");
    usleep(1000);
}

int ring_start(unsigned depth, std::string *why) {
    auto ring = std::make_unique<Ring>();
    ring->depth = depth;
    ring->wake_fd = eventfd(0, EFD_CLOEXEC);
    if (ring->wake_fd < 0)
        return -errno;
    Ring *p = ring.get();
    {
        SignalsBlocked blocked;
        ring->thread = std::thread([p] { run_ring(*p); });
    }
    int rc = wait_until_made(*ring);
    if (rc < 0) {
        ring->thread.join();
        close(ring->wake_fd);
        if (why)
            *why = std::string("io_uring is not available: ") + strerror(-rc);
        return rc;
    }
    {
        SignalsBlocked blocked;
        ring->helper = std::thread([p] { run_helper(*p); });
    }
    the_ring = ring.release();
    return 0;
}

void ring_stop() {
    Ring &ring = *the_ring;
    {
        Guard held(ring.mutex);
        ring.stopping = true;
    }
    std::uint64_t one = 1;
    while (write(ring.wake_fd, &one, sizeof(one)) < 0 && errno == EINTR)
        ;
    ring.thread.join();
    {
        Guard held(ring.helper_mutex);
        ring.helper_stopping = true;
        ring.helper_wanted.notify_all();
    }
    ring.helper.join();
    close(ring.wake_fd);
    delete the_ring;
    the_ring = nullptr;
}

void ring_submit(Operation *op) {
    if (!own_take(op))
        enqueue(*the_ring, op);
}

void ring_submit_all(Operations *list) {
    Operations left;
    while (list->first) {
        Operation *op = list->take();
        if (!own_take(op))
            left.append(op);
    }
    if (left.first)
        enqueue(*the_ring, &left);
}

std::uint64_t ring_submitted() {
    Guard held(the_ring->mutex);
    return the_ring->submitted;
}

}  // namespace user
