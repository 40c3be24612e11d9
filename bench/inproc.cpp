// bench/inproc.cpp: the request path and the bitmap commands without I/O
// SPDX-License-Identifier: GPL-2.0-only
//
// Everything runs over a disk that ends requests at once (null_disk.h), of 1 TiB. "below" is the same
// request sent to that disk directly: what a request costs the platform; the difference to "filter"
// is the driver's. Instructions are counted where the machine lets a program count them.
#include <benchmark/benchmark.h>
#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "abi/trak_ioctl.h"
#include "bench/null_disk.h"
#include "driver/module/module.h"
#include "driver/module/params.h"
#include "os/user/user.h"

namespace {

constexpr std::uint64_t kTib = std::uint64_t{1} << 40;
constexpr os_uaddr kRecord = 0x10000;
constexpr os_uaddr kData = 0x1000000;

void must(int rc, const char *what) {
    if (rc != 0) {
        std::fprintf(stderr, "%s: %d\n", what, rc);
        std::exit(1);
    }
}

template <typename Record> int command(std::uint32_t cmd, Record *record) {
    const std::span<std::uint8_t> window(reinterpret_cast<std::uint8_t *>(record), sizeof(*record));
    const user::CallerScope caller({0, kRecord, window});
    return user::chr_ioctl(cmd, kRecord);
}

// A bitmap command whose data lies in this process: record and bitmap in one window.
int bitmap_command(std::uint32_t cmd, std::uint32_t minor, std::vector<std::uint8_t> *memory,
                   std::uint32_t size) {
    const trak_bmp_data_arg arg = {minor, TRAK_BMP_INCR, size, 0, kData};
    std::memcpy(memory->data(), &arg, sizeof(arg));
    const user::CallerScope caller({0, kData - sizeof(arg), *memory});
    return user::chr_ioctl(cmd, kData - sizeof(arg));
}

std::uint64_t resident_bytes() {
    std::ifstream file("/proc/self/statm");
    std::uint64_t total = 0;
    std::uint64_t resident = 0;
    file >> total >> resident;
    return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

// Instructions of this thread in user mode, or -1 where they can't be counted.
class Instructions {
  public:
    Instructions() {
        perf_event_attr attr = {};
        attr.type = PERF_TYPE_HARDWARE;
        attr.size = sizeof(attr);
        attr.config = PERF_COUNT_HW_INSTRUCTIONS;
        attr.exclude_kernel = 1;
        attr.exclude_hv = 1;
        fd_ = static_cast<int>(syscall(SYS_perf_event_open, &attr, 0, -1, -1, 0));
    }
    ~Instructions() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Instructions(const Instructions &) = delete;
    Instructions &operator=(const Instructions &) = delete;
    double count() const {
        std::uint64_t value = 0;
        return fd_ >= 0 && read(fd_, &value, sizeof(value)) == sizeof(value)
                   ? static_cast<double>(value)
                   : -1;
    }

  private:
    int fd_;
};

// A filter node over the null disk while it lives.
class Filter {
  public:
    explicit Filter(std::uint32_t extent_size) {
        char dir[] = "/tmp/trak-bench.XXXXXX";
        must(mkdtemp(dir) == nullptr, "no directory");
        dir_ = dir;
        trak_add_filter_arg arg = {};
        std::snprintf(arg.hdd_name, sizeof(arg.hdd_name), "%s", bench::kNullDisk);
        arg.minor = -1;
        arg.extent_size = extent_size;
        std::snprintf(arg.bmp_dir, sizeof(arg.bmp_dir), "%s", dir);
        must(command(TRAK_ADD_FILTER_NODE, &arg), "add filter");
        minor_ = static_cast<std::uint32_t>(arg.minor);
        trak_minor_arg node = {minor_};
        must(command(TRAK_START_NODE, &node), "start");
        int rc = 0;
        const auto major = static_cast<std::uint32_t>(trak_blk_major);
        bdev_ = user::open_device(os_mkdev(major, minor_), OS_FMODE_READ | OS_FMODE_WRITE, &rc);
        must(rc, "open");
    }
    ~Filter() {
        user::close_device(bdev_, OS_FMODE_READ | OS_FMODE_WRITE);
        trak_minor_arg node = {minor_};
        must(command(TRAK_STOP_NODE, &node), "stop");
        must(command(TRAK_DEL_NODE, &node), "delete");
        for (const char *name : {"incr", "diff"}) {
            unlink((dir_ + "/trak" + std::to_string(minor_) + "." + name).c_str());
        }
        rmdir(dir_.c_str());
    }
    Filter(const Filter &) = delete;
    Filter &operator=(const Filter &) = delete;
    os_bdev *bdev() const { return bdev_; }
    std::uint32_t minor() const { return minor_; }

  private:
    std::string dir_;
    std::uint32_t minor_ = 0;
    os_bdev *bdev_ = nullptr;
};

// A snapshot of the filter, resumed with a bitmap of preserved chunks in which every byte is `bits`.
class Snap {
  public:
    Snap(const Filter &filter, std::uint8_t bits) {
        const char *place = std::getenv("TRAK_BENCH_COW_DIR");
        dir_ = std::string(place != nullptr ? place : "/var/tmp") + "/trak-bench.XXXXXX";
        must(mkdtemp(dir_.data()) == nullptr, "no directory");
        trak_add_snap_arg arg = {};
        arg.filter_minor = filter.minor();
        arg.snap_minor = -1;
        arg.chunk_size = 65536;
        std::snprintf(arg.cow_bmp_fname, sizeof(arg.cow_bmp_fname), "%s/map", dir_.c_str());
        std::snprintf(arg.cow_data_fname, sizeof(arg.cow_data_fname), "%s/data", dir_.c_str());
        must(command(TRAK_ADD_SNAP_NODE, &arg), "add snap");
        minor_ = static_cast<std::uint32_t>(arg.snap_minor);
        trak_minor_arg node = {minor_};
        must(command(TRAK_START_NODE, &node), "start the snap");
        if (bits == 0) {
            return;
        }
        must(command(TRAK_STOP_NODE, &node), "stop the snap");
        const std::vector<char> map(kTib / 65536 / 8, static_cast<char>(bits));
        std::ofstream(dir_ + "/map", std::ios::binary)
            .write(map.data(), static_cast<std::streamsize>(map.size()));
        trak_resume_arg again = {minor_, 1, 0, 0};
        must(command(TRAK_RESUME_SNAP, &again), "resume the snap");
    }
    ~Snap() {
        trak_minor_arg node = {minor_};
        must(command(TRAK_STOP_NODE, &node), "stop the snap");
        must(command(TRAK_DEL_NODE, &node), "delete the snap");
        for (const char *name : {"map", "data"}) {
            unlink((dir_ + "/" + name).c_str());
        }
        rmdir(dir_.c_str());
    }
    Snap(const Snap &) = delete;
    Snap &operator=(const Snap &) = delete;

  private:
    std::string dir_;
    std::uint32_t minor_ = 0;
};

// Of the threads of one benchmark.
Filter *g_filter;
Snap *g_snap;
os_bdev *g_bdev;
os_dev_t g_null;

void done(void *data, int error) {
    *static_cast<int *>(data) = error;
}

void submit_many(benchmark::State &state, os_bdev *bdev, std::uint32_t rw, std::size_t size) {
    void *memory = std::aligned_alloc(4096, size);
    std::memset(memory, 1, size);
    std::uint64_t at = static_cast<std::uint64_t>(state.thread_index()) * (kTib / 4);
    int error = 0;
    const Instructions instructions;
    const double before = instructions.count();
    for (auto _ : state) {
        user::submit(bdev, rw, at % kTib, memory, size, done, &error);
        at += size + 4096 * 17;  // another extent now and then
    }
    const double after = instructions.count();
    if (before >= 0) {
        state.counters["instructions"] =
            benchmark::Counter((after - before) / static_cast<double>(state.iterations()),
                               benchmark::Counter::kAvgThreads);
    }
    std::free(memory);
}

// What a filter over 1 TiB keeps in memory, and a snapshot of it with chunks of 64 KiB, of which none or
// half are preserved (spread over all of the disk). First of all: memory that was freed before would be
// used again and not be seen.
void memory_per_tib(benchmark::State &state) {
    for (auto _ : state) {
        const std::uint64_t before = resident_bytes();
        const Filter node(65536);
        const std::uint64_t after = resident_bytes();
        state.counters["KiB"] = static_cast<double>(after - before) / 1024;
        auto snap = std::make_unique<Snap>(node, 0);
        const std::uint64_t with_snap = resident_bytes();
        state.counters["KiB_snap_empty"] = static_cast<double>(with_snap - after) / 1024;
        snap = nullptr;
        // What the empty one gave back would be used again: counted from before it.
        snap = std::make_unique<Snap>(node, 0x0f);
        state.counters["KiB_snap_half"] = static_cast<double>(resident_bytes() - after) / 1024;
    }
}
BENCHMARK(memory_per_tib)->Iterations(1)->Repetitions(1);

// Made before the threads of a benchmark start, and taken away after they ended.
void open_below(const benchmark::State &) {
    int rc = 0;
    g_bdev = user::open_device(g_null, OS_FMODE_READ | OS_FMODE_WRITE, &rc);
    must(rc, "open the null disk");
}
void close_below(const benchmark::State &) {
    user::close_device(g_bdev, OS_FMODE_READ | OS_FMODE_WRITE);
}
void open_filter(const benchmark::State &) {
    g_filter = new Filter(65536);
    g_bdev = g_filter->bdev();
}
void close_filter(const benchmark::State &) {
    delete g_filter;
}

// Small and large requests, from one thread and from two at once.
void sizes_and_threads(benchmark::internal::Benchmark *each) {
    each->Arg(4096)->Arg(1 << 20)->Threads(1)->Threads(2)->UseRealTime();
}

void below(benchmark::State &state) {
    submit_many(state, g_bdev, OS_BIO_WRITE, static_cast<std::size_t>(state.range(0)));
}
BENCHMARK(below)->Setup(open_below)->Teardown(close_below)->Apply(sizes_and_threads);

void filter(benchmark::State &state) {
    submit_many(state, g_bdev, OS_BIO_WRITE, static_cast<std::size_t>(state.range(0)));
}
BENCHMARK(filter)->Setup(open_filter)->Teardown(close_filter)->Apply(sizes_and_threads);

// With a snapshot started whose chunks are all preserved: what a second touch costs.
void open_preserved(const benchmark::State &state) {
    open_filter(state);
    g_snap = new Snap(*g_filter, 0xff);
}
void close_preserved(const benchmark::State &state) {
    delete g_snap;
    close_filter(state);
}

void preserved_write(benchmark::State &state) {
    submit_many(state, g_bdev, OS_BIO_WRITE, static_cast<std::size_t>(state.range(0)));
}
BENCHMARK(preserved_write)
    ->Setup(open_preserved)
    ->Teardown(close_preserved)
    ->Apply(sizes_and_threads);

void preserved_read(benchmark::State &state) {
    submit_many(state, g_bdev, 0, static_cast<std::size_t>(state.range(0)));
}
BENCHMARK(preserved_read)
    ->Setup(open_preserved)
    ->Teardown(close_preserved)
    ->Apply(sizes_and_threads);

// Of a bitmap of 32 MiB, while another thread writes: the longest write is what a writer is held.
void get_and_clear(benchmark::State &state) {
    const Filter node(4096);
    constexpr std::uint32_t kSize = 32 << 20;
    std::vector<std::uint8_t> memory(sizeof(trak_bmp_data_arg) + kSize);
    std::atomic<bool> stop{false};
    std::atomic<std::int64_t> longest{0};
    std::thread writer([&] {
        void *page = std::aligned_alloc(4096, 4096);
        int error = 0;
        for (std::uint64_t at = 0; !stop; at += std::uint64_t{4096} * 1001) {
            const auto from = std::chrono::steady_clock::now();
            user::submit(node.bdev(), OS_BIO_WRITE, at % kTib, page, 4096, done, &error);
            const std::int64_t took = (std::chrono::steady_clock::now() - from).count();
            longest = std::max(longest.load(), took);
        }
        std::free(page);
    });
    for (auto _ : state) {
        must(bitmap_command(TRAK_GET_AND_CLR_BMP, node.minor(), &memory, kSize), "get and clear");
    }
    stop = true;
    writer.join();
    state.counters["longest_write_us"] = static_cast<double>(longest) / 1000;
}
BENCHMARK(get_and_clear)->Unit(benchmark::kNanosecond)->UseRealTime()->Iterations(20);

}  // namespace

int main(int argc, char **argv) {
    std::string why;
    trak_debug = 0;
    must(user::start(user::Options{}, &why), why.c_str());
    must(trak_init(), "load");
    g_null = bench::null_disk_make(kTib);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    must(trak_cleanup(), "unload");
    bench::null_disk_remove();
    user::stop();
    return 0;
}
