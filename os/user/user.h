// os/user/user.h: the platform of user space, as the daemon and tests see it
// SPDX-License-Identifier: GPL-2.0-only
//
// One platform per process: start() once, then load the driver, serve, unload the driver, stop().
// After stop() it may be started afresh.
//
// Threads    any thread of the process may call anything here; a thread becomes a task of the seam
//            with its first call. Functions marked "sleeps" may wait for I/O or for locks of the
//            driver; none of them may be called from a completion (Done), a listener or a log sink.
// Interrupts completions of I/O run on the platform's own I/O thread, or on the submitter's that serves
//            its own (OwnIo): interrupt context for the driver (os_in_interrupt() is true there). They
//            must be short and must not wait.
// Errors     0 or a negative errno; `why` (may be null) gets one line for a person, no newline.
#ifndef TRAK_OS_USER_USER_H
#define TRAK_OS_USER_USER_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "os/bdev.h"
#include "os/bio.h"
#include "os/task.h"
#include "os/uaccess.h"

namespace user {

struct OwnRing;

// ---- the platform -------------------------------------------------------------------------------

struct Options {
    // The kernel log is bounded: the oldest lines go first.
    std::size_t log_bytes = std::size_t{16} << 20;
    // Requests at the kernel at once; more wait their turn.
    unsigned queue_depth = 256;
};

// Starts the I/O thread and the log. From here on SIGXFSZ and SIGPIPE are ignored in the process
// (a write beyond a limit is an error of that write). -EALREADY when it runs. Sleeps.
[[nodiscard]] int start(const Options &options, std::string *why);
// Ends it: joins the driver's threads, thaws what is frozen, waits for I/O under way. The driver is
// unloaded and every device closed before. Sleeps.
void stop();

// Thaws every file system that os_freeze_bdev stopped and that is still frozen. Safe in a signal
// handler: a dying process calls it so that no file system stays frozen.
void thaw_all() noexcept;

// ---- disks --------------------------------------------------------------------------------------
// Real disks need no registration: they are found by their device number, and opened exclusively
// while the driver has them. An image file is known to the driver as /dev/image/NAME, a block special
// file of a major that no real device has. What the driver hears of others (os_bdev_openers): whoever
// else claimed a real disk (a mount, a stacked device, an exclusive open) or locked an image (flock)
// counts as one opener, and so does each loop device on either.

inline constexpr std::uint32_t kImageMajor = 3072;

// Registers an image: a regular file that exists, of at least one sector; its size is taken when it
// is opened and counts in whole sectors. Names: letters, digits, '.', '_', '-'; -EEXIST for a name or
// a file that is registered already. *dev (may be null) gets its device number.
[[nodiscard]] int add_image(const std::string &name, const std::string &file, os_dev_t *dev,
                            std::string *why);

// ---- nodes: the driver's own block devices ----------------------------------------------------------

struct NodeInfo {
    os_dev_t dev;
    std::string disk_name;  // as the driver called the disk: "trak%d"
    std::uint64_t size;     // bytes
    bool read_only;
    bool can_discard;  // limits of its queue: what a request may be
    bool can_zero;
};
// Nodes that exist now, by device number.
std::vector<NodeInfo> nodes();
// -ENXIO when there is none.
int node_info(os_dev_t dev, NodeInfo *info);

// Special files below /dev/trak that the driver made: names in the platform's own tree, not on the
// machine. The name may differ from the disk's.
struct DevName {
    std::string name;  // one component
    std::uint32_t mode;
    os_dev_t dev;
};
std::vector<DevName> dev_names();

// Told of changes, on the thread that makes them, with locks of the driver held: note the change
// and return; calls of this header other than the queries above are not allowed.
class Listener {
  public:
    virtual void node_added(os_dev_t dev) = 0;    // os_add_disk
    virtual void node_removed(os_dev_t dev) = 0;  // os_del_gendisk
    virtual void name_added(const DevName &name) = 0;
    virtual void name_removed(const DevName &name) = 0;

  protected:
    ~Listener() = default;
};
// One listener; null takes it away, and returns once no call of it runs.
void set_listener(Listener *listener);

// Opens a device by number as a program does: a node runs the driver's open operation, whose error
// is returned. Null: *err tells why. Sleeps.
os_bdev *open_device(os_dev_t dev, std::uint32_t mode, int *err);
// The driver's release operation; no request on it may be under way. Sleeps.
void close_device(os_bdev *bdev, std::uint32_t mode);
// The driver's ioctl operation, with addresses of the calling thread's Caller. Sleeps.
int device_ioctl(os_bdev *bdev, std::uint32_t mode, std::uint32_t cmd, os_uaddr arg);

// Ends a request: once, in any thread, possibly before submit() returned. The buffer is the caller's
// again from here on.
using Done = void (*)(void *data, int error);
// One request through the device's queue. rw: flags of a bio (OS_BIO_WRITE, OS_BIO_FLUSH, ...).
// offset and size in bytes, whole sectors, else -EINVAL through done; a flush alone has size 0.
// buf: the data, at any address (page-aligned memory saves a copy further down), not touched until
// done; null for discard and zeroes. At most kMaxRequest bytes of data, 2 GiB without. Sleeps.
inline constexpr std::size_t kMaxRequest = std::size_t{4} << 20;
void submit(os_bdev *bdev, std::uint32_t rw, std::uint64_t offset, void *buf, std::size_t size,
            Done done, void *data);
// The same, waited for: 0 or the errno that it ended with.
[[nodiscard]] int submit_wait(os_bdev *bdev, std::uint32_t rw, std::uint64_t offset, void *buf,
                              std::size_t size);

// A thread that serves its own I/O. While one lives, what this thread submits to disks goes to a ring of
// the thread's own: serve() hands it over and runs the completions, on this thread, in interrupt
// context of the driver. No other thread is woken for it. Where the thread sleeps for the driver instead
// (a lock, a wait queue) it goes on serving. Made and used by one thread, one at a time.
class OwnIo {
  public:
    // depth: transfers under way at once; what is beyond goes to the platform's I/O thread. So does all
    // of it where the depth is 0 or no ring is to be had.
    explicit OwnIo(unsigned depth);
    ~OwnIo();  // waits for what is under way
    OwnIo(const OwnIo &) = delete;
    OwnIo &operator=(const OwnIo &) = delete;
    // Hands over what was submitted and ends what is done. `wait`: sleeps until there is something to
    // end, fd can be read or a signal came. True when fd can be read, as far as it was waited for.
    bool serve(int fd, bool wait);
    // Returns when nothing is under way.
    void drain();

  private:
    OwnRing *ring_ = nullptr;
};

// ---- where nodes are shown, and what is mounted through them -----------------------------------------

// Tells where the tree with dev/trak/<name> is mounted, after mounting it: from then on a loop
// device on such a file counts as the node. Empty: nowhere. -ENOENT when nothing is mounted there.
// Reads the machine's mount table only; never touches the file system itself.
[[nodiscard]] int set_tree(const std::string &mount_point);

struct MountedThrough {
    os_dev_t dev;             // the node
    std::string block;        // the block device that is mounted: "loop0"
    std::string mount_point;  // the first one
};
// File systems that are mounted from loop devices on node files. Sleeps (reads /proc and /sys).
std::vector<MountedThrough> mounted_through_nodes();

// ---- the caller of a command ------------------------------------------------------------------------

// Whose memory os_copy_from_user and os_copy_to_user reach, per thread: addresses inside the window
// are bytes in this process; all others are reached in the process. A copy that crosses the edge of
// the window is served from both.
struct Caller {
    pid_t pid;                       // 0: nobody; only the window is reachable
    os_uaddr window_addr;            // where the record lies in the caller
    std::span<std::uint8_t> window;  // its bytes here; writes of the driver land in them
};
// Makes this thread act for a caller while it lives; nests. Forgets a signal sent before it.
class CallerScope {
  public:
    explicit CallerScope(const Caller &caller);
    ~CallerScope();
    CallerScope(const CallerScope &) = delete;
    CallerScope &operator=(const CallerScope &) = delete;

  private:
    Caller caller_;
    const Caller *outer_;
};
// Sends a task a signal: an interruptible sleep ends, os_signal_pending() is true until the task's
// CallerScope ends. The task (os_current() of that thread) must still live.
void send_signal(os_task *task);

// ---- the control device -------------------------------------------------------------------------------
// Call within a CallerScope. -ENODEV while the driver has registered none.

int chr_major();  // 0 while none is registered
int chr_open();   // holds the module; each success is paired with chr_release
void chr_release();
int chr_ioctl(std::uint32_t cmd, os_uaddr arg);
long chr_read(os_uaddr buf, std::size_t count, std::int64_t *pos);
long chr_write(os_uaddr buf, std::size_t count, std::int64_t *pos);

// ---- /proc ---------------------------------------------------------------------------------------------
// Paths below /proc without a slash at either end: "trak/trak0/uuid"; "" is /proc itself.

struct ProcInfo {
    std::string name;
    std::uint32_t mode;  // type (S_IFDIR or S_IFREG) and permissions
    std::uint64_t ino;   // stable while the entry lives, never used twice
};
int proc_stat(const std::string &path, ProcInfo *info);
int proc_list(const std::string &path, std::vector<ProcInfo> *entries);  // -ENOTDIR for a file
int proc_read(const std::string &path, std::string *text);               // the whole text; sleeps
// One write; returns what the driver's operation returned. -EACCES for a file that takes none.
long proc_write(const std::string &path, std::string_view text);  // sleeps

// ---- the kernel log --------------------------------------------------------------------------------------

// Every line since the start that is still kept, each as printk got it ("<6>... \n"). Where older
// lines were dropped the first line says how many.
std::string log_text();
std::uint64_t log_lines();  // lines ever logged
// Each record as it is logged, on the thread that logs it (possibly interrupt context, possibly
// under a spin lock): it must not block. Null takes it away and returns once no call of it runs.
using LogSink = void (*)(void *data, const char *text, std::size_t size);
void set_log_sink(LogSink sink, void *data);

// ---- the module ------------------------------------------------------------------------------------------

int module_references();

}  // namespace user

#endif
