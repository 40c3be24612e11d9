// bench/sync_timer.cpp: how long a program waits in fdatasync; loaded before it with LD_PRELOAD
// SPDX-License-Identifier: GPL-2.0-only
//
// The file that TRAK_BENCH_SYNC names holds two numbers of 64 bits, which grow while the program runs:
// calls, and nanoseconds that they took. Without it, or where it can't be mapped, nothing is counted.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

struct Counters {
    std::atomic<std::uint64_t> calls;
    std::atomic<std::uint64_t> ns;
};
static_assert(sizeof(Counters) == 16);

Counters *map_counters() {
    const char *path = std::getenv("TRAK_BENCH_SYNC");
    if (path == nullptr) {
        return nullptr;
    }
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    void *at = mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return at == MAP_FAILED ? nullptr : static_cast<Counters *>(at);
}

std::uint64_t now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

extern "C" int fdatasync(int fd) {
    using Sync = int (*)(int);
    static const auto real = reinterpret_cast<Sync>(dlsym(RTLD_NEXT, "fdatasync"));
    static Counters *const counters = map_counters();
    if (real == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    const std::uint64_t before = now_ns();
    const int rc = real(fd);
    const int error = errno;
    if (counters != nullptr) {
        counters->calls += 1;
        counters->ns += now_ns() - before;
    }
    errno = error;
    return rc;
}
