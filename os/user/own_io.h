// os/user/own_io.h: what the platform's parts ask of a thread's own ring
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_USER_OWN_IO_H
#define TRAK_OS_USER_OWN_IO_H

#include <cstdint>

#include "os/user/ring.h"

namespace user {

// True when the calling thread has a ring, which has taken the operation.
bool own_take(Operation *op);
// Hands over and ends what the calling thread's ring has; never sleeps.
void own_serve();
// Sleeps on the word and serves the calling thread's ring meanwhile. False, at once, when it has
// nothing under way there.
bool own_sleep_on(std::uint32_t *word, std::uint32_t value);

}  // namespace user

#endif
