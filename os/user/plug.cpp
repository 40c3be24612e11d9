// os/user/plug.cpp: joining transfers that adjoin on the disk
// SPDX-License-Identifier: GPL-2.0-only
//
// A joint transfer that moves everything ends all its parts. One that moves less, or fails, tells
// nothing of a single part: then each part is done by itself, from its beginning, and gets the result
// of its own. Doing a part twice is harmless, for it has not ended yet.
#include "os/user/plug.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "os/user/bio.h"
#include "os/user/device.h"
#include "os/user/memory.h"
#include "os/user/task.h"

namespace user {

namespace {

constexpr unsigned kHeldAtMost = 256;
constexpr std::uint64_t kHeldBytes = std::uint64_t{2} << 20;
constexpr std::uint64_t kJointBytes = std::uint64_t{1} << 20;
constexpr unsigned kJointPieces = 1024;

// The pieces follow in the same memory.
struct Joint : Operation {
    Operations parts;
    std::uint64_t bytes = 0;
    iovec *pieces() { return reinterpret_cast<iovec *>(this + 1); }
};
static_assert(sizeof(Joint) % alignof(iovec) == 0);

// A run of held transfers that adjoin.
struct Run {
    Operations parts;
    std::uint64_t bytes = 0;
    unsigned pieces = 0;

    bool takes(const Transfer *t) const {
        if (!parts.first)
            return true;
        const Transfer *last = static_cast<const Transfer *>(parts.last);
        return last->fd == t->fd && last->kind == t->kind && last->flags == t->flags &&
               last->at + last->left == t->at && !last->bounce.iov_base && !t->bounce.iov_base &&
               bytes + t->left <= kJointBytes && pieces + t->piece_count <= kJointPieces;
    }
    void add(Transfer *t) {
        parts.append(t);
        bytes += t->left;
        pieces += t->piece_count;
    }
};

void joint_done(Operation *op, int result) {
    Joint *joint = static_cast<Joint *>(op);
    Operations parts = joint->parts;
    bool whole = result > 0 && static_cast<std::uint64_t>(result) == joint->bytes;
    joint->~Joint();
    free(joint);
    while (parts.first) {
        Transfer *t = static_cast<Transfer *>(parts.take());
        if (whole)
            t->done(t, static_cast<int>(t->left));
        else
            ring_submit(t);
    }
}

Joint *make_joint(Run *run) {
    if (heap_is_empty.load(std::memory_order_relaxed))
        return nullptr;
    void *memory = malloc(sizeof(Joint) + run->pieces * sizeof(iovec));
    if (!memory)
        return nullptr;
    Joint *joint = new (memory) Joint;
    const Transfer *first = static_cast<const Transfer *>(run->parts.first);
    joint->kind = first->kind;
    joint->fd = first->fd;
    joint->flags = first->flags;
    joint->offset = first->at;
    joint->bytes = run->bytes;
    joint->done = joint_done;
    iovec *pieces = joint->pieces();
    unsigned count = 0;
    for (const Operation *op = run->parts.first; op; op = op->next) {
        const Transfer *t = static_cast<const Transfer *>(op);
        for (unsigned i = 0; i < t->piece_count; i++) {
            iovec *last = count ? &pieces[count - 1] : nullptr;
            if (last &&
                static_cast<char *>(last->iov_base) + last->iov_len == t->pieces[i].iov_base)
                last->iov_len += t->pieces[i].iov_len;
            else
                pieces[count++] = t->pieces[i];
        }
    }
    joint->iov = pieces;
    joint->iov_count = count;
    joint->parts = run->parts;
    return joint;
}

// Without memory each part goes by itself.
void close_run(Run *run, Operations *ready) {
    bool alone = run->parts.first == run->parts.last;
    Joint *joint = alone ? nullptr : make_joint(run);
    if (joint)
        ready->append(joint);
    else
        ready->append_all(&run->parts);
    *run = {};
}

}  // namespace

bool plug_hold(Transfer *t) {
    Plug &plug = current().plug;
    if (!plug.holds)
        return false;
    plug.held.append(t);
    plug.count++;
    plug.bytes += t->left;
    if (plug.count >= kHeldAtMost || plug.bytes >= kHeldBytes)
        plug_pull();
    return true;
}

void plug_pull() {
    Plug &plug = current().plug;
    if (!plug.count)
        return;
    Operations held = plug.held, ready;
    plug.held = {};
    plug.count = 0;
    plug.bytes = 0;
    Run run;
    while (held.first) {
        Transfer *t = static_cast<Transfer *>(held.take());
        if (!run.takes(t))
            close_run(&run, &ready);
        run.add(t);
    }
    close_run(&run, &ready);
    ring_submit_all(&ready);
}

}  // namespace user
