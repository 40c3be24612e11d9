// daemon/receivers.h: the threads that take requests from the kernel
// SPDX-License-Identifier: GPL-2.0-only
//
// A receiver reads one request, runs its handler and reads the next. Handlers of reads and writes
// submit and return; their completion replies. A receiver also hands over and ends the I/O that it
// submitted (user::OwnIo): a few requests are read, handed over together, what is done is answered,
// and only when nothing is left to do does it sleep, for requests and completions alike. What waits
// as a rule (commands, opens) is no receiver's work: see workers.h.
//
// Calm     a few receivers read, as many as there are processors or four: a request costs least where the
//          thread that reads it does all the rest and no other is woken for it.
// Alert    submitting may sleep all the same: the node table held by a creation, a queue that is
//          full. A thread looks every few milliseconds whether requests are taken; when all that read
//          stay in handlers, others read. From then on whoever takes a request and finds
//          that nobody else reads lets another one read first, so that there is always one, whatever
//          the others wait for. Calm returns when no receiver sleeps any more.
#ifndef TRAKD_RECEIVERS_H
#define TRAKD_RECEIVERS_H

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>

#include "daemon/buffers.h"
#include "os/user/user.h"

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
        Buffer memory;   // what the next request is read into
        unsigned depth;  // of its I/O
        user::OwnIo *io = nullptr;
        bool none_left = true;  // nothing was there when it read last
        unsigned taken = 0;     // requests since it served its I/O
    };
    [[nodiscard]] int add_thread_locked();
    void one_more_reads();
    static void *run_receiver(void *thread);
    static void *run_lookout(void *self);
    void receive_all(Thread *self);
    void look_out();
    bool may_read(Thread *self);
    bool must_not_read();
    bool receive(Thread *self);
    bool await_request(Thread *self);
    void ended();

    fuse_session *session_ = nullptr;
    OnEnd on_end_ = nullptr;
    void *arg_ = nullptr;
    int calm_ = 1;                 // receivers that read side by side
    std::atomic<int> reading_{0};  // receivers that read, or are about to
    std::atomic<std::uint64_t> taken_{0};
    std::atomic<bool> alert_{false};
    std::atomic<bool> lookout_sleeps_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> told_{false};

    std::mutex mutex_;
    std::condition_variable parked_;
    std::condition_variable gone_;
    std::condition_variable lookout_;
    std::list<Thread> threads_;
    int idle_ = 0;          // parked
    int let_in_ = 0;        // of them, told to read
    bool looking_ = false;  // the lookout's thread lives
};

}  // namespace trakd

#endif
