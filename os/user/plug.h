// os/user/plug.h: requests that a thread holds back for a moment, so that neighbours go as one
// SPDX-License-Identifier: GPL-2.0-only
//
// A thread that submits request after request holds the data transfers back until it unplugs a queue,
// sleeps, yields or has many; then all of them are handed over at once, those that adjoin on the disk
// as one transfer. The driver's threads hold; a program's threads, which may wait in ways that the
// platform does not see, do not.
#ifndef TRAK_OS_USER_PLUG_H
#define TRAK_OS_USER_PLUG_H

#include <cstdint>

#include "os/user/ring.h"

namespace user {

struct Transfer;

// The thread's own.
struct Plug {
    bool holds = false;
    unsigned count = 0;
    std::uint64_t bytes = 0;
    Operations held;  // transfers, ready for the ring
};

// True when the calling thread holds the transfer back; it is the plug's then.
bool plug_hold(Transfer *t);
// Hands over what the calling thread holds back. Context: any.
void plug_pull();

}  // namespace user

#endif
