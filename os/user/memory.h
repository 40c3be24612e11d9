// os/user/memory.h: how a test makes memory short
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_USER_MEMORY_H
#define TRAK_OS_USER_MEMORY_H

#include <atomic>

namespace user {

// While set, the heap gives nothing: every allocation fails but those that a pool's reserve serves.
extern std::atomic<bool> heap_is_empty;

}  // namespace user

#endif
