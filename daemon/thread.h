// daemon/thread.h: threads of a known stack size
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAKD_THREAD_H
#define TRAKD_THREAD_H

#include <pthread.h>

namespace trakd {

// Stacks are locked in memory, so they are small; what runs on them is written for a kernel's
// stack.
inline constexpr unsigned kStackBytes = 256 * 1024;

// Starts fn(arg): 0 or a positive errno. A thread without `id` is detached.
[[nodiscard]] inline int thread_start(const char *name, void *(*fn)(void *), void *arg,
                                      pthread_t *id) {
    pthread_attr_t attr;
    if (const int rc = pthread_attr_init(&attr); rc != 0) {
        return rc;
    }
    pthread_attr_setstacksize(&attr, kStackBytes);
    pthread_attr_setdetachstate(&attr,
                                id == nullptr ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    pthread_t made;
    const int rc = pthread_create(&made, &attr, fn, arg);
    pthread_attr_destroy(&attr);
    if (rc == 0 && id != nullptr) {
        pthread_setname_np(made, name);
        *id = made;
    }
    return rc;
}

}  // namespace trakd

#endif
