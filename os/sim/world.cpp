// os/sim/world.cpp: one boot from start to end, and what is checked at its end
// SPDX-License-Identifier: GPL-2.0-only
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "os/sim/kernel.h"
#include "os/sim/sanitizer.h"

// The driver's mutable globals: the linker marks both ends of the section, where there is one.
extern "C" {
extern unsigned char __start_os_module_state[] __attribute__((weak));
extern unsigned char __stop_os_module_state[] __attribute__((weak));
}

#if OS_SIM_ASAN
// Tasks of a boot that ended in the middle leave what their frames own; the driver's own memory is
// tracked by memory.cpp.
extern "C" __attribute__((used, visibility("default"))) const char *__lsan_default_options() {
    return "detect_leaks=0";
}
#endif

namespace sim {

constinit Kernel *g_kernel = nullptr;

namespace {

std::string g_replay;
std::vector<unsigned char> g_module_image;
std::uint64_t g_boots;

// Byte by byte: the sanitizer may keep its marks between the variables.
OS_SIM_NO_ASAN void copy_module_state(unsigned char *to, const unsigned char *from,
                                      std::size_t size) {
    for (std::size_t i = 0; i < size; i++) {
        to[i] = from[i];
        __asm__ volatile("" ::: "memory");
    }
}

std::size_t module_state_size() {
    return static_cast<std::size_t>(__stop_os_module_state - __start_os_module_state);
}

// Before main: nothing has changed the globals yet.
__attribute__((constructor)) void save_module_state() {
    g_module_image.resize(module_state_size());
    copy_module_state(g_module_image.data(), __start_os_module_state, g_module_image.size());
}

void restore_module_state() {
    copy_module_state(__start_os_module_state, g_module_image.data(), g_module_image.size());
}

std::string last_log_lines() {
    const std::vector<std::string> &lines = log_lines();
    std::size_t from = lines.size() > 12 ? lines.size() - 12 : 0;
    std::string text;
    for (std::size_t i = from; i < lines.size(); i++)
        text += "\n  log: " + lines[i];
    return text;
}

std::string replay_line(std::uint64_t seed) {
    if (!g_replay.empty())
        return g_replay;
    return format("TRAK_SEED=%llu %s", static_cast<unsigned long long>(seed),
                  program_invocation_name);
}

std::string describe_failure(const char *what) {
    const Kernel &k = kernel();
    std::string text = format("%s\n  seed %llu, step %llu, %llu ms after boot", what,
                              static_cast<unsigned long long>(k.options.seed),
                              static_cast<unsigned long long>(k.steps),
                              static_cast<unsigned long long>(k.now_us / 1000));
    if (k.current)
        text += format(", in %s (pid %d)%s", k.current->comm, k.current->pid,
                       k.current->in_irq ? ", interrupt" : "");
    text += describe_tasks() + last_log_lines();
    return text + "\n  replay: " + replay_line(k.options.seed);
}

// What the driver left behind; empty: nothing.
std::string leftovers() {
    Kernel &k = kernel();
    if (k.threads) {
        std::string text = "kernel threads were not ended:";
        for (const os_task *task : k.tasks)
            if (task->kernel && !task->ended && task != k.idle)
                text += std::string(" ") + task->comm;
        return text;
    }
    std::string text = device_leaks();
    if (text.empty())
        text = chardev_leaks();
    if (text.empty())
        text = proc_leaks();
    if (text.empty())
        text = mem_leaks();
    if (text.empty() && k.module_references)
        text = format("%d references on the module were not put", k.module_references);
    return text;
}

void check_end() {
    mem_check_freed();
    std::string left = leftovers();
    if (!left.empty() && kernel().options.check_leaks)
        fail("%s", left.c_str());
}

// Ends the World on every way out of run.
struct Boot {
    explicit Boot(Kernel &k) {
        if (g_kernel)
            throw std::logic_error("a World runs inside another World");
        g_kernel = &k;
        log_lines().clear();
        restore_module_state();
    }
    ~Boot() {
        drop_tasks();
        device_drop_all();
        proc_drop_all();
        user_drop_all();
        handles_drop_all();
        mem_drop_all();
        g_kernel = nullptr;
    }
};

}  // namespace

void no_world() {
    std::fprintf(stderr, "os/sim: the driver was called outside of a sim::World\n");
    std::abort();
}

std::string format(const char *fmt, ...) {
    char text[2048];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    return text;
}

void end_boot(Ending how) {
    Kernel &k = kernel();
    k.ending = how;
    os_task *task = k.current;
    k.current = nullptr;
    fibre_switch(task->fibre, k.main);
    std::abort();
}

void fail(const char *fmt, ...) {
    Kernel &k = kernel();
    va_list args;
    va_start(args, fmt);
    char text[2048];
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    if (k.ending == Ending::kRunning) {
        k.failure = describe_failure(text);
        if (k.current)
            end_boot(Ending::kFailed);
    } else {
        k.failure = describe_failure(text);
    }
    throw Failure(k.failure);
}

void set_replay(std::string line) {
    g_replay = std::move(line);
}

std::uint64_t trace() {
    return kernel().trace;
}

Kernel::Kernel(Storage &s, const Options &o)
    : storage(s), options(o), boot(++g_boots), rng(o.seed),
      random_bytes(o.seed ^ 0x72616e646f6dull) {
    static constexpr std::uint32_t kPreempt[] = {1, 3, 7, 15, 63};
    static constexpr std::uint32_t kInterrupt[] = {1, 3, 15, 63};
    preempt_mask = kPreempt[rng.below(std::size(kPreempt))];
    irq_mask = kInterrupt[rng.below(std::size(kInterrupt))];
    first_tick = (std::uint64_t{1} << 32) - 10'000;  // soon beyond 32 bits
    next_pid = 1000;
    next_region = 0x200000000000;
}

Kernel::~Kernel() = default;

struct World::Impl : Kernel {
    using Kernel::Kernel;
    bool ran = false;
};

World::World(Storage &storage, Options options) : impl(std::make_unique<Impl>(storage, options)) {}

World::~World() = default;

void World::run(const std::function<void()> &fn) {
    Impl &k = *impl;
    if (k.ran)
        throw std::logic_error("a World runs once; make another one to boot again");
    k.ran = true;
    Boot boot(k);
    k.idle = new_task("swapper", true);
    os_task *init = new_task("test", false);
    init->process_fn = fn;
    k.processes = 1;
    run_tasks();
    switch (k.ending) {
    case Ending::kThrown:
        std::rethrow_exception(k.thrown);
    case Ending::kFailed:
        throw Failure(k.failure);
    case Ending::kPowerCut:
        mem_check_freed();
        disks_power_cut();
        storage_power_cut(k.storage, k.rng);
        throw PowerCut("the power was cut");
    default:
        check_end();
        storage_sync(k.storage);  // an orderly shutdown
        disks_sync(k.storage);
    }
}

void power_cut() {
    end_boot(Ending::kPowerCut);
}

void power_cut_after(std::uint64_t points) {
    kernel().cut_at = kernel().steps + points;
}

int module_references() {
    return kernel().module_references;
}

}  // namespace sim

extern "C" void os_bug(const char *file, int line, const char *condition) {
    sim::fail("BUG at %s:%d: %s", file, line, condition);
}
