// daemon/pressure.h: going on when memory is short
// SPDX-License-Identifier: GPL-2.0-only
//
// Dirty pages of a file system on a node can only be freed by a write through trakd. So trakd must
// need no memory whose freeing waits for such a write: its own pages are locked, and the kernel's
// allocations on its behalf are told not to wait for I/O.
#ifndef TRAKD_PRESSURE_H
#define TRAKD_PRESSURE_H

namespace trakd {

// For the whole process; called once, before other threads start (they inherit it). What the
// machine refuses is said in the log and done without.
void pressure_prepare();
// Says what was refused. Once the log runs.
void pressure_report();

}  // namespace trakd

#endif
