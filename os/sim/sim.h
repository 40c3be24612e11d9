// os/sim/sim.h: the simulated kernel, as tests see it
// SPDX-License-Identifier: GPL-2.0-only
//
// One World is one boot of one machine. Everything in it runs on one thread of the test: tasks are
// fibres, and one seed decides at every scheduling point (lock, unlock, wait, wake, allocation, copy,
// I/O, yield) which runs next, in what order I/O completes and which call fails. Storage outlives a
// World, so a test may cut the power and boot again on what was durable.
//
// A violation (sleep in atomic context, lock order, deadlock, lost wake-up, leak, double completion,
// use of freed memory, a bug check of the driver) ends the World with a Failure whose text holds the
// seed and the line that replays it.
#ifndef TRAK_OS_SIM_SIM_H
#define TRAK_OS_SIM_SIM_H

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "os/bdev.h"
#include "os/bio.h"
#include "os/file.h"
#include "os/memory.h"
#include "os/uaccess.h"

namespace sim {

using Bytes = std::vector<std::uint8_t>;

// Thrown out of World::run when the simulated machine broke a rule.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The line at the end of a Failure that says how to repeat it; seeds.h sets it for each test.
void set_replay(std::string line);

// Thrown out of World::run after power_cut(): not an error.
class PowerCut : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Kinds of calls that can fail; each call of a kind counts as one fault point.
enum class Fault : unsigned {
    kAlloc,  // kmalloc, vmalloc, pages, caches, pools, bios, clones, disks, queues
    kCopy,   // user copies
    kRead,   // file reads and disk reads
    kWrite,  // file writes and disk writes
    kFlush,  // fsync and disk flushes
    kOpen,   // opening files and devices, mknod, unlink, registrations, adding disks, thread starts
    kProc,   // making /proc entries
    kCount
};

struct Options {
    std::uint64_t seed = 1;
    std::uint64_t max_steps = 20'000'000;  // scheduling points before the run counts as a livelock
    bool check_leaks = true;
    bool short_transfers = false;  // reads and writes of files may move less than was asked
};

// ---- what survives a boot -------------------------------------------------------------------

// A disk of the machine: durable contents, and writes since the last flush that a power cut may lose,
// tear at sectors or keep, in any combination. Sparse: 16 TiB cost nothing.
class Disk;
// The files of the machine: a tree of folders, regular files and device special files. A file has
// durable contents and contents not yet synced; a power cut keeps any prefix-free mixture of unsynced
// pages; names behave as on a journalling file system (made, truncated and removed in order).
class Storage {
  public:
    Storage();
    ~Storage();
    Storage(const Storage &) = delete;
    Storage &operator=(const Storage &) = delete;

    // A disk /dev/NAME with a device number; block_size is its logical block. Makes the special file.
    Disk &add_disk(const std::string &name, os_dev_t dev, std::uint64_t size_bytes,
                   std::uint32_t block_size);
    Disk &disk(os_dev_t dev);

    // Files, as a process outside the driver sees and changes them (durable at once).
    void mkdir(const std::string &path);  // with its parents
    void write_file(const std::string &path, std::span<const std::uint8_t> bytes);
    Bytes read_file(const std::string &path);          // as programs see it now
    Bytes read_file_durable(const std::string &path);  // as a power cut leaves it at the least
    bool exists(const std::string &path);
    void remove(const std::string &path);
    void symlink(const std::string &target, const std::string &path);
    void chmod_special(const std::string &path, std::uint32_t mode_and_type, os_dev_t rdev);

    // The folder is the top of a file system on this device number (0: one without a block device).
    void mount(const std::string &dir, os_dev_t dev);
    void set_read_only(const std::string &dir, bool read_only);
    void set_free_bytes(const std::string &dir, std::uint64_t bytes);  // then -ENOSPC
    // Every call on the path (not below it) fails with the errno; 0 takes it back.
    void fail_path(const std::string &path, Fault kind, int err);
    // Writes of the path move nothing and report no error: 0 bytes.
    void stop_writes(const std::string &path, bool stopped);
    // Lookups of the path find an entry without an inode.
    void hide_inode(const std::string &path, bool hidden);

    struct Impl;
    std::unique_ptr<Impl> impl;
};

class Disk {
  public:
    // What the disk holds now, unflushed writes included, for tests (no fault, no time).
    Bytes read(std::uint64_t offset, std::size_t size) const;
    void write(std::uint64_t offset, std::span<const std::uint8_t> bytes);
    std::uint64_t size() const;
    // Requests that touch [first, last] fail with -EIO, in this direction.
    void fail_sectors(std::uint64_t first, std::uint64_t last, bool writes);
    void heal();
    // While held, submitted requests do not complete (a stalled disk).
    void hold(bool held);
    std::uint64_t flush_count() const;
    // A file system is mounted on the disk; somebody else holds it open.
    void set_mounted(bool mounted);
    void set_openers(unsigned others);
    // The disk's own ioctl operation; without one every ioctl of it gives 0.
    void
    set_ioctl(std::function<int(std::uint32_t mode, std::uint32_t cmd, os_uaddr arg)> operation);
    struct Impl;
    std::unique_ptr<Impl> impl;
    Disk();
    ~Disk();
};

// ---- one boot ---------------------------------------------------------------------------------

class World {
  public:
    World(Storage &storage, Options options);
    ~World();
    // Boots, runs fn as the first process and everything that it starts, and ends when fn and all
    // spawned processes have ended (kernel threads included, or it is a leak). Throws Failure,
    // PowerCut, or what fn throws (GoogleTest's fatal failures return, they do not throw).
    void run(const std::function<void()> &fn);
    struct Impl;
    std::unique_ptr<Impl> impl;
};

// ---- calls for code that runs inside a World ----------------------------------------------------

struct Process;
Process *spawn(const std::string &name, std::function<void()> fn);
void join(Process *process);
void signal(Process *process);              // ends an interruptible sleep
void yield();                               // a scheduling point
void sleep_ms(unsigned ms);                 // virtual time
std::uint64_t random(std::uint64_t below);  // from the seed
void wait_until(
    const std::function<bool()> &condition);  // yields until it holds; deadlock is found

// What the run decided so far, as one number: the same seed and code give the same.
std::uint64_t trace();

// Faults. nth counts from 1, from this call on; each call takes its own errno (-ENOMEM, -EFAULT, -EIO).
void fail_nth(Fault kind, std::uint64_t nth);
void fail_random(Fault kind, unsigned per_mille);  // 0 ends it
void fail_none();
std::uint64_t fault_points(Fault kind);  // calls of the kind so far

// Ends this boot at this very point: nothing after it happens. Does not return.
[[noreturn]] void power_cut();
// The same at the nth scheduling point from now on.
void power_cut_after(std::uint64_t points);
// The same at the nth call of the kind from now on, before it does anything.
void power_cut_at(Fault kind, std::uint64_t nth);

// The driver leaves exactly this many pieces of memory behind at the end, on purpose.
void expect_leaked_pieces(unsigned count);

// For millions of boots: memory that the driver gives back is kept, untouchable, up to this many bytes, and
// handed out again, the oldest first. 0, as at first: each piece is malloc's own. Not inside of a World.
// Means nothing without the address sanitizer.
void keep_memory(std::size_t bytes);

// The log as printk would have shown it: one line each, with "<n>" at its start, without newline.
const std::vector<std::string> &log();
void clear_log();
std::size_t count_log(std::string_view part);  // lines that contain part

// Memory of the calling process. Addresses are real numbers for the driver and never host pointers.
os_uaddr user_alloc(std::size_t size);
void user_free(os_uaddr addr);
std::span<std::uint8_t> user_bytes(os_uaddr addr, std::size_t size);
void user_protect(os_uaddr addr, bool readable, bool writable);
inline constexpr os_uaddr kUserLimit = 0x7ffffffff000;

// The control device, as a process calls it; -ENODEV while none is registered.
int chr_ioctl(std::uint32_t cmd, os_uaddr arg);
long chr_read(os_uaddr buf, std::size_t size);
long chr_write(os_uaddr buf, std::size_t size);

// A program that holds a block device (a disk or a node) open. Null: *err tells why.
os_bdev *open_device(os_dev_t dev, std::uint32_t mode, int *err);
void close_device(os_bdev *bdev);
int device_ioctl(os_bdev *bdev, std::uint32_t cmd, os_uaddr arg);
// One request through the device's queue, waited for: 0 or the errno that it ended with.
int read_device(os_bdev *bdev, std::uint64_t sector, std::span<std::uint8_t> into);
int write_device(os_bdev *bdev, std::uint64_t sector, std::span<const std::uint8_t> bytes);
int submit_device(os_bdev *bdev, std::uint32_t rw, std::uint64_t sector,
                  std::span<std::uint8_t> data);
// Several under way: start, then wait for each once.
struct Request;
Request *start_request(os_bdev *bdev, std::uint32_t rw, std::uint64_t sector, Bytes data);
bool request_done(const Request *request);
int wait_request(Request *request, Bytes *data);  // frees it; data (may be null) gets what was read

// A file system on a device, for freezing: writes of programs to the device wait while it is frozen.
void attach_file_system(os_dev_t dev);
void wait_while_frozen(os_dev_t dev);
bool is_frozen(os_dev_t dev);
// Files below the folder lie on the file system on this device: whatever is done to them reads or writes
// the device too, in a task that the caller waits for. Null ends it.
void host_files(const std::string &dir, os_bdev *bdev);
// What the file system itself writes when it is frozen, in the task that freezes.
void on_freeze(os_dev_t dev, std::function<void()> fn);

// /proc files of the machine: an error is negative.
int proc_read(const std::string &path, std::string *text);
int proc_write(const std::string &path, std::string_view text);
bool proc_exists(const std::string &path);
std::vector<std::string> proc_list(const std::string &path);

// Nodes that exist now: device numbers of disks made with os_add_disk.
std::vector<os_dev_t> nodes();
int module_references();

}  // namespace sim

#endif
