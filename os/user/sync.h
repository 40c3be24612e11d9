// os/user/sync.h: the platform's own mutex, condition and futex, known to Clang's lock analysis
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_USER_SYNC_H
#define TRAK_OS_USER_SYNC_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#if defined(__clang__)
#define USER_ATTR(x) __attribute__((x))
#else
#define USER_ATTR(x)
#endif
#define USER_CAPABILITY(name) USER_ATTR(capability(name))
#define USER_SCOPED USER_ATTR(scoped_lockable)
#define USER_GUARDED_BY(m) USER_ATTR(guarded_by(m))
#define USER_REQUIRES(...) USER_ATTR(requires_capability(__VA_ARGS__))
#define USER_EXCLUDES(...) USER_ATTR(locks_excluded(__VA_ARGS__))
#define USER_ACQUIRE(...) USER_ATTR(acquire_capability(__VA_ARGS__))
#define USER_RELEASE(...) USER_ATTR(release_capability(__VA_ARGS__))
#define USER_NO_ANALYSIS USER_ATTR(no_thread_safety_analysis)

namespace user {

class USER_CAPABILITY("mutex") Mutex {
  public:
    void lock() USER_ACQUIRE() { mutex_.lock(); }
    void unlock() USER_RELEASE() { mutex_.unlock(); }
    std::mutex &native() { return mutex_; }

  private:
    std::mutex mutex_;
};

class USER_SCOPED Guard {
  public:
    explicit Guard(Mutex &mutex) USER_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~Guard() USER_RELEASE() { mutex_.unlock(); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

  private:
    Mutex &mutex_;
};

class Condition {
  public:
    // Lets the mutex go while it waits; wake-ups may be spurious.
    void wait(Mutex &mutex) USER_REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.native(), std::adopt_lock);
        condition_.wait(held);
        held.release();
    }
    void notify_all() { condition_.notify_all(); }

  private:
    std::condition_variable condition_;
};

// Sleeps while *word holds `value`; may return early.
inline void futex_wait(std::uint32_t *word, std::uint32_t value) {
    syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}
// The same for no longer than so many nanoseconds, less than a second.
inline void futex_wait_for(std::uint32_t *word, std::uint32_t value, long nanoseconds) {
    timespec limit{0, nanoseconds};
    syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, value, &limit, nullptr, 0);
}
// Never reads the word: it may belong to memory that was freed since, where at worst a stranger
// wakes up for nothing (every sleeper here asks again).
inline void futex_wake(std::uint32_t *word, int count) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

}  // namespace user

#endif
