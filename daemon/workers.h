// daemon/workers.h: threads for what may wait
// SPDX-License-Identifier: GPL-2.0-only
//
// Commands, opens and releases may wait for locks of the driver, for I/O or for minutes: each gets
// a thread, and none of these threads is one that serves reads and writes.
#ifndef TRAKD_WORKERS_H
#define TRAKD_WORKERS_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

namespace trakd {

class Workers {
  public:
    using Task = std::function<void()>;

    // 0 or a positive errno: one thread is there from the start and stays.
    [[nodiscard]] int start();
    // Runs the task on a thread of its own as soon as one can be had. Never waits.
    void post(Task task);
    // Waits until no task is queued or runs; tasks posted meanwhile are waited for too.
    void drain();
    // Drains, and ends the threads.
    void stop();

  private:
    static void *run(void *self);
    void loop();
    bool add_thread_locked();

    std::mutex mutex_;
    std::condition_variable work_;
    std::condition_variable quiet_;
    std::deque<Task> queue_;
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
    bool stopping_ = false;
};

}  // namespace trakd

#endif
