// daemon/pressure.cpp: going on when memory is short
// SPDX-License-Identifier: GPL-2.0-only
#include "daemon/pressure.h"

#include <linux/capability.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "daemon/report.h"
#include "daemon/thread.h"

#ifndef PR_SET_IO_FLUSHER
#define PR_SET_IO_FLUSHER 57
#endif

namespace trakd {

namespace {

int g_lock_error;
int g_flusher_error;

bool may_lock_all() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    return ::syscall(SYS_capget, &header, data) == 0 &&
           (data[0].effective & (1U << CAP_IPC_LOCK)) != 0;
}

// Later mappings are locked too only where no bound can make them fail.
void lock_memory() {
    rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    const bool unbounded = ::setrlimit(RLIMIT_MEMLOCK, &limit) == 0 || may_lock_all();
    g_lock_error = ::mlockall(MCL_CURRENT | (unbounded ? MCL_FUTURE : 0)) != 0 ? errno : 0;
}

}  // namespace

void pressure_prepare() {
    // Memory that was freed stays with the process, in few arenas: the next request needs it again.
    ::mallopt(M_ARENA_MAX, 4);
    ::mallopt(M_TRIM_THRESHOLD, 64 << 20);
    ::mallopt(M_MMAP_THRESHOLD, 4 << 20);
    // Stacks are locked whole: those of the platform's threads too are made for a kernel's code.
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) == 0) {
        pthread_attr_setstacksize(&attr, 2 * kStackBytes);
        pthread_setattr_default_np(&attr);
        pthread_attr_destroy(&attr);
    }
    lock_memory();
    g_flusher_error = ::prctl(PR_SET_IO_FLUSHER, 1, 0, 0, 0) != 0 ? errno : 0;
}

void pressure_report() {
    if (g_lock_error != 0) {
        report(
            "memory can't be locked ({}): where it is short, a write through a node may wait for "
            "trakd's own pages; give CAP_IPC_LOCK, or raise the limit of locked memory",
            std::strerror(g_lock_error));
    }
    if (g_flusher_error != 0) {
        report(
            "the kernel's allocations for trakd can't be kept from waiting for I/O "
            "(PR_SET_IO_FLUSHER: {}): give CAP_SYS_RESOURCE where nodes carry mounted file systems",
            std::strerror(g_flusher_error));
    }
}

}  // namespace trakd
