// daemon/receivers.h: the threads that take requests from the kernel
// SPDX-License-Identifier: GPL-2.0-only
//
// A receiver reads one request, runs its handler and reads the next. Handlers of reads and writes
// submit and return; their completion replies. Submitting may sleep all the same (a file system
// that is being frozen, a queue that is full, the node table held by a creation), so a receiver
// that finds itself the last one that was reading starts another before it goes on: there is
// always one that reads, whatever the others wait for. What waits as a rule (commands, opens) is
// no receiver's work: see workers.h.
#ifndef TRAKD_RECEIVERS_H
#define TRAKD_RECEIVERS_H

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>

#include "daemon/buffers.h"

struct fuse_session;

namespace trakd {

class Receivers {
  public:
    // on_end(arg) is called once, by a receiver, when the kernel has ended the session (unmounted
    // or aborted).
    using OnEnd = void (*)(void *arg);

    // 0 or a positive errno.
    [[nodiscard]] int start(fuse_session *session, OnEnd on_end, void *arg);
    // Ends the threads, each after the request that it has in hand. Never called by a receiver.
    void stop();

    // For a handler: the memory of the request that this thread has in hand, when `data` is the
    // beginning of its payload and a replacement can be had. The payload is then the caller's,
    // page-aligned, at buffer.data() + kPage.
    static Buffer take_payload(const void *data);

  private:
    struct Thread {
        Receivers *owner;
        pthread_t id;
        Buffer memory;  // what the next request is read into
    };
    [[nodiscard]] int add_thread();
    static void *run(void *thread);
    void loop(Thread *self);
    bool receive(Thread *self);
    void ended();
    [[nodiscard]] bool surplus();

    fuse_session *session_ = nullptr;
    OnEnd on_end_ = nullptr;
    void *arg_ = nullptr;
    std::atomic<int> reading_{0};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> told_{false};

    std::mutex mutex_;
    std::condition_variable gone_;
    std::list<Thread> threads_;
    int staying_ = 0;  // of them, those that have not made up their mind to end
};

}  // namespace trakd

#endif
