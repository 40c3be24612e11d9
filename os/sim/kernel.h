// os/sim/kernel.h: the state of one simulated boot, for the files of os/sim alone
// SPDX-License-Identifier: GPL-2.0-only
//
// One thread runs everything, so no field is locked. A task is a fibre with a processor of its own:
// whoever stops at a scheduling point may be overtaken there by every other task, under a spin lock
// too. An interrupt runs on top of a task that has not saved interrupts, or on the idle task.
//
// Nothing that decides may depend on an address: one seed gives one run.
#ifndef TRAK_OS_SIM_KERNEL_H
#define TRAK_OS_SIM_KERNEL_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <os_embedded.h>

#include "os/chardev.h"
#include "os/lock.h"
#include "os/proc.h"
#include "os/sim/fibre.h"
#include "os/sim/rng.h"
#include "os/sim/sim.h"
#include "os/task.h"
#include "os/wait.h"

namespace sim {

// What a task waits for; its object stands beside it.
enum class Wait : std::uint8_t {
    kNone,
    kQueue,
    kSpin,
    kSemaphore,
    kCompletion,
    kMutex,  // one of the simulated kernel's own
    kTimer,
    kPoll,
    kJoin,
    kRequest,
    kFrozen,
    kRemoval,
};

struct Held {
    const os_lock_class *cls;
    const void *lock;
    bool spin;
    bool exclusive;  // a sleeping lock: nobody else has it meanwhile
};

// A sleeping lock of the simulated kernel itself (folders, opened devices).
struct Mutex {
    os_task *owner = nullptr;
    os_sim_wait_list waiters{};
    std::uint64_t boot = 0;  // the boot that the other fields belong to
};

}  // namespace sim

struct os_task {
    sim::Fibre fibre;
    int pid = 0;
    char comm[OS_TASK_COMM_LEN] = {};
    bool kernel = false;
    bool ended = false;
    bool signalled = false;
    bool daemonized = false;

    int run_index = -1;            // place in Kernel::runnable, -1: not runnable
    os_task *wait_next = nullptr;  // in the list that it waits in
    sim::Wait wait = sim::Wait::kNone;
    const void *wait_on = nullptr;
    std::uint64_t wait_since = 0;  // step
    std::uint64_t wake_at_us = 0;  // kTimer
    std::uint64_t polled_at = 0;   // kPoll: progress when its condition was last false
    bool polling = false;

    bool marked = false;  // os_prepare_to_wait marked it as sleeping
    bool marked_interruptible = false;
    const os_wait_queue_head *marked_head = nullptr;
    unsigned queued_entries = 0;  // its wait entries that stand on queues

    bool in_irq = false;
    unsigned irq_off = 0;        // spin locks held with interrupts saved
    unsigned spin_depth = 0;     // spin locks held
    unsigned irq_held_base = 0;  // locks below it belong to what the interrupt interrupted
    unsigned held_count = 0;
    std::array<sim::Held, 32> held;

    os_bio *bio_list = nullptr;  // submitted inside a make-request function, to be started after it
    os_bio *bio_list_last = nullptr;
    bool in_make_request = false;
    unsigned in_open = 0;    // open and release operations under way
    bool in_freeze = false;  // its writes are those of the file system that it freezes

    os_sim_wait_list joiners{};
    int (*thread_fn)(void *) = nullptr;
    void *thread_arg = nullptr;
    std::function<void()> process_fn;
};

namespace sim {

struct Block;  // memory.cpp: header of a piece of the driver's memory

struct Timer {
    std::uint64_t at_us;
    os_task *task;
};

struct ChrDevice {
    std::uint32_t major;
    std::string name;
    const os_file_operations *ops;
    unsigned calls;  // under way
};

struct BlkMajor {
    std::uint32_t major;
    std::string name;
};

struct UserRegion {
    os_uaddr addr;
    std::size_t size;
    bool readable;
    bool writable;
    std::uint8_t *bytes;  // of its very size, so that overruns of the copy are seen
};

struct FileSystem {
    os_dev_t dev;
    unsigned frozen;
    unsigned writers;  // writes under way
    os_sim_wait_list thawed;
    os_sim_wait_list drained;
    std::function<void()> on_freeze;
};

struct FaultPlan {
    std::uint64_t count = 0;
    std::uint64_t fail_at = 0;  // value of count, 0: none
    std::uint64_t cut_at = 0;   // the power goes; 0: it stays
    unsigned per_mille = 0;
};

enum class Ending : std::uint8_t { kRunning, kDone, kFailed, kPowerCut, kThrown };

struct Kernel {
    Kernel(Storage &s, const Options &o);
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;
    ~Kernel();

    Storage &storage;
    Options options;
    std::uint64_t boot;

    // Scheduling.
    Rng rng;
    Rng random_bytes;
    std::uint64_t steps = 0;
    std::uint64_t trace = 0;
    std::uint64_t cut_at = 0;         // step, 0: none
    std::uint32_t preempt_mask = 3;   // of this seed: how seldom tasks are overtaken
    std::uint32_t irq_mask = 3;       // of this seed: how seldom interrupts come
    std::uint64_t progress = 1;       // moved by whatever may change a polled condition
    std::uint64_t lonely_yields = 0;  // in a row, with nobody else to run
    std::uint64_t ending_since = 0;   // step at which the last process ended
    unsigned poll_rounds = 0;
    unsigned processes = 0;
    unsigned threads = 0;
    int next_pid = 0;
    os_task *current = nullptr;
    os_task *idle = nullptr;
    std::vector<os_task *> tasks;
    std::vector<os_task *> runnable;
    std::vector<os_task *> pollers;
    std::vector<Timer> timers;
    Fibre main;

    // How it ended.
    Ending ending = Ending::kRunning;
    std::string failure;
    std::exception_ptr thrown;

    // Time.
    std::uint64_t now_us = 0;
    std::uint64_t first_tick = 0;

    // Memory.
    Block *blocks = nullptr;
    Block *freed_first = nullptr;
    Block *freed_last = nullptr;
    std::size_t freed_bytes = 0;
    unsigned expected_leaks = 0;

    std::array<FaultPlan, static_cast<std::size_t>(Fault::kCount)> faults{};

    // Devices.
    std::vector<os_bio *> pending;  // what disks have taken and not yet served
    std::vector<os_bio *> held;     // the same, of disks that are held
    std::vector<ChrDevice> chr_devices;
    std::vector<BlkMajor> blk_majors;
    std::map<os_dev_t, os_disk *> nodes;  // visible
    std::map<os_dev_t, os_bdev *> bdevs;  // opened
    std::map<os_dev_t, FileSystem> file_systems;
    std::map<std::string, os_bdev *> hosts;  // of the files below a folder
    std::map<os_dev_t, os_disk *> machine_disks;
    unsigned supers = 0;  // references that os_get_super gave
    int module_references = 0;

    // The calling process's memory.
    std::vector<UserRegion> regions;  // ascending
    os_uaddr next_region = 0;

    os_proc_entry *proc_root = nullptr;
    // Lock classes by use: 1 in interrupts, 2 with interrupts enabled.
    std::vector<std::pair<const os_lock_class *, unsigned>> irq_use;
    // Lock classes that operations of disks took in this boot: kByOpen, kByRequest.
    std::vector<std::pair<const os_lock_class *, unsigned>> disk_use;
};

extern constinit Kernel *g_kernel;  // of the running World

// Who is called outside of a World cannot be served: says so and aborts.
[[noreturn]] void no_world();
inline Kernel &kernel() {
    if (__builtin_expect(!g_kernel, 0))
        no_world();
    return *g_kernel;
}
inline os_task &self() {
    return *kernel().current;
}

// ---- world.cpp
// Ends the World with a Failure; from any stack.
[[noreturn]] void fail(const char *fmt, ...) OS_PRINTF(1, 2);
[[noreturn]] void end_boot(Ending how);
std::string format(const char *fmt, ...) OS_PRINTF(1, 2);
std::vector<std::string> &log_lines();

// ---- sched.cpp
// A scheduling point: others may run, an interrupt may come, the power may go.
void point();
// Lets another task run, or the same one again; `us` of time go by.
void give_way(std::uint64_t us);
// Stops the calling task until make_runnable; the caller has put it where it is found.
void block(Wait wait, const void *on);
void make_runnable(os_task *task);
void wait_in(os_sim_wait_list &list, Wait wait, const void *on);
bool wake_one(os_sim_wait_list &list);
void wake_all(os_sim_wait_list &list);
void mutex_lock(Mutex &mutex, const void *what);
void mutex_unlock(Mutex &mutex);
os_task *new_task(const char *name, bool is_kernel);
[[noreturn]] void task_end();
void run_tasks();  // on the main stack, until the boot ends
std::string describe_tasks();
void drop_tasks();

// ---- locks.cpp
// Failure unless the caller may sleep.
void might_sleep(const char *what);
void check_held_in_freed(const void *p, std::size_t size);
// Failure if the caller has a lock to itself that such operations of disks take: it is about to wait for
// them, and they may be waiting for the lock.
inline constexpr unsigned kByOpen = 1;     // open and release
inline constexpr unsigned kByRequest = 2;  // the make-request function
void check_waits_for(unsigned uses, const char *function);
// Failure if the task holds locks or stands on a wait queue beyond what `before` says.
struct Depth {
    unsigned held, entries, spins;
};
Depth depth_of(const os_task &task);
void check_depth(const os_task &task, const Depth &before, const char *where);

// ---- faults.cpp
bool fault(Fault kind);  // counts a call; true: it fails

// ---- memory.cpp
// Kinds of the driver's memory and of handles; a handle is memory that the driver must give back.
enum class Kind : std::uint32_t {
    kFree,
    kKmalloc,
    kVmalloc,
    kCache,
    kObject,
    kPool,
    kPage,
    kBio,
    kDisk,
    kQueue,
    kFile,
    kDentry,
    kParent,
    kBdev,
    kCount
};
void *mem_alloc(Kind kind, std::size_t size, const void *caller);
void mem_free(Kind kind, void *p, const char *function);
void mem_check(Kind kind, const void *p, const char *function);  // alive and of this kind
void mem_own(void *p);  // belongs to the simulated machine: no leak of the driver
std::string mem_leaks();
void mem_drop_all();
void mem_check_freed();  // nothing wrote to freed memory

// ---- freeze.cpp
// A call on a file: what the file system under it asks of its device for that.
void touch_host(const std::string &path, Fault kind);

// ---- disk.cpp, device.cpp, node.cpp
bool irq_deliver();  // serves one request of a disk; false: none
void disks_power_cut();
void disks_sync(Storage &storage);
std::string device_leaks();
void device_drop_all();

// ---- chardev.cpp, proc.cpp, uaccess.cpp
std::string chardev_leaks();
std::string proc_leaks();
void proc_drop_all();
void user_drop_all();

// ---- storage.cpp, file.cpp
void storage_sync(Storage &storage);
void storage_power_cut(Storage &storage, Rng &rng);
void handles_drop_all();

}  // namespace sim

#endif
