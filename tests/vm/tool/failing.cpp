// tests/vm/tool/failing.cpp: the control device's calls while the kernel makes its own steps fail
// SPDX-License-Identifier: GPL-2.0-only
//
// A kernel with fault injection lets the next allocation, page or request of a marked task fail after so
// many bytes ("space"). A step is repeated with more and more of them, until nothing is left in it that could
// fail: then each of its allocations has failed once, but for small ones late in long steps.
//
// Left out where memory lacks is the creation of nodes. That of a snap is known to leave the node table
// locked (docs/compatibility.md). That of a filter makes a disk and slab caches: add_disk of kernels before
// 5.15 takes no failure, and SLUB of 2.6.32 takes a cache that sysfs has no place for out of its list after
// having freed it; both end the guest.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>

#include "abi/trak_ioctl.h"
#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

constexpr std::uint32_t kFilter = 0, kSnap = 1;
constexpr std::size_t kPage = 4096;
constexpr std::uint64_t kPlace = 10 * 65536;  // what the steps write and read
constexpr int kTries = 1200;                  // of 100 ms: what must come true within two minutes
constexpr unsigned kMostPlaces = 220;

void put_text(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        close(fd) != 0)
        die(path);
}

std::string text_of(const std::string &path) {
    char text[512] = {};
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return "";
    const ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    return n > 0 ? text : "";
}

// One kind of failure, and whom it strikes: this process, and the driver's threads where it says so.
class Faults {
  public:
    explicit Faults(const std::string &kind) : folder_("/sys/kernel/debug/" + kind + "/") {
        own_ = open("/proc/self/make-it-fail", O_WRONLY | O_CLOEXEC);
        if (own_ < 0)
            die("make-it-fail");
        set("times", 0);
        set("probability", 100);
        set("interval", 1);
        set("verbose", 0);
        put_text(folder_ + "task-filter", "Y");
        if (kind != "fail_make_request")
            put_text(folder_ + "ignore-gfp-wait", "N");
        if (kind == "fail_page_alloc")
            set("min-order", 0);
    }

    void arm(std::uint64_t space, bool threads) {
        set("space", space);
        set("times", 1);
        if (threads)
            mark_threads();
        mark_self('1');
    }

    // Whether one has failed.
    bool disarm() {
        mark_self('0');
        const bool failed = number(text_of(folder_ + "times").substr(0, 1)) == 0;
        set("times", 0);
        return failed;
    }

  private:
    void set(const char *name, std::uint64_t value) {
        put_text(folder_ + name, std::to_string(value));
    }

    void mark_self(char c) {
        if (pwrite(own_, &c, 1, 0) != 1)
            die("make-it-fail");
    }

    static void mark_threads() {
        DIR *all = opendir("/proc");
        while (const dirent *one = all != nullptr ? readdir(all) : nullptr) {
            const std::string folder = std::string("/proc/") + one->d_name;
            const std::string stat = one->d_name[0] <= '9' ? text_of(folder + "/stat") : "";
            if (stat.find("(kcowd") != std::string::npos ||
                stat.find("(kdirtyd") != std::string::npos)
                put_text(folder + "/make-it-fail", "1");
        }
        if (all != nullptr)
            closedir(all);
    }

    std::string folder_;
    int own_ = -1;
};

struct Node {
    int control = -1, filter = -1, snap = -1;
    std::string disk, folder;
    unsigned char *bits = nullptr, *page = nullptr, *old_page = nullptr;
    std::uint32_t bits_size = 0;
};

// 0 or the error's number.
int call(const Node &node, std::uint32_t code, void *record) {
    const int rc = ioctl(node.control, code, record);
    return rc < 0 ? errno : rc;
}

int of_minor(const Node &node, std::uint32_t code, std::uint32_t minor) {
    trak_minor_arg arg{minor};
    return call(node, code, &arg);
}

trak_info_arg *info(const Node &node, std::uint32_t minor, int *rc) {
    static trak_info_arg arg;
    arg.minor = minor;
    *rc = call(node, TRAK_GET_INFO, &arg);
    return &arg;
}

bool is_valid(const Node &node) {
    int rc = 0;
    return info(node, kSnap, &rc)->snap_valid == 1 && rc == 0;
}

int add_filter(Node &node) {
    trak_add_filter_arg arg{};
    std::snprintf(arg.hdd_name, sizeof arg.hdd_name, "%s", node.disk.c_str());
    std::snprintf(arg.bmp_dir, sizeof arg.bmp_dir, "%s", node.folder.c_str());
    arg.minor = kFilter;
    arg.extent_size = 65536;
    return call(node, TRAK_ADD_FILTER_NODE, &arg);
}

int add_snap(Node &node) {
    trak_add_snap_arg arg{};
    arg.filter_minor = kFilter;
    arg.snap_minor = kSnap;
    arg.chunk_size = 4096;
    std::snprintf(arg.cow_bmp_fname, sizeof arg.cow_bmp_fname, "%s/map", node.folder.c_str());
    std::snprintf(arg.cow_data_fname, sizeof arg.cow_data_fname, "%s/data", node.folder.c_str());
    return call(node, TRAK_ADD_SNAP_NODE, &arg);
}

int start_filter(Node &node) {
    return of_minor(node, TRAK_START_NODE, kFilter);
}

int start_snap(Node &node) {
    return of_minor(node, TRAK_START_NODE, kSnap);
}

int list(Node &node) {
    static trak_device_list_arg arg;
    arg.dev_type = TRAK_DEV_FILTER;
    return call(node, TRAK_GET_DEVICE_LIST, &arg);
}

int get_info(Node &node) {
    int rc = 0;
    info(node, kFilter, &rc);
    return rc;
}

template <std::uint32_t Code> int on_map(Node &node) {
    trak_bmp_arg arg{kFilter, TRAK_BMP_INCR};
    return call(node, Code, &arg);
}

template <std::uint32_t Code> int with_bits(Node &node) {
    trak_bmp_data_arg arg{kFilter, TRAK_BMP_INCR, node.bits_size, 0,
                          reinterpret_cast<std::uint64_t>(node.bits)};
    return call(node, Code, &arg);
}

int datablock(Node &node) {
    trak_datablock_arg arg{kSnap, 65536, 4096, 0, reinterpret_cast<std::uint64_t>(node.bits)};
    return call(node, TRAK_GET_DATABLOCK_BMP, &arg);
}

int transferred(ssize_t n) {
    return n == static_cast<ssize_t>(kPage) ? 0 : n < 0 ? errno : EIO;
}

// Other contents each time.
int write_page(Node &node) {
    ++node.page[7];
    return transferred(pwrite(node.filter, node.page, kPage, kPlace));
}

int read_snap(Node &node) {
    return transferred(pread(node.snap, node.page, kPage, kPlace));
}

int stop_snap(Node &node) {
    return of_minor(node, TRAK_STOP_NODE, kSnap);
}
int stop_filter(Node &node) {
    return of_minor(node, TRAK_STOP_NODE, kFilter);
}
int delete_snap(Node &node) {
    return of_minor(node, TRAK_DEL_NODE, kSnap);
}
int delete_filter(Node &node) {
    return of_minor(node, TRAK_DEL_NODE, kFilter);
}

// How much is there when a step is taken.
enum Level { kNothing, kFilterAdded, kFilterStarted, kSnapAdded, kSnapStarted };

struct Step {
    const char *name;
    Level before;
    int (*run)(Node &);
    std::initializer_list<int> stated;  // besides ENOMEM, EIO, and EFAULT for the record's copy
    bool again = true;                  // it passes when it is called again
};

const Step kSteps[] = {
    {"add-filter", kNothing, add_filter, {EINVAL, ENOENT}},
    {"start-filter", kFilterAdded, start_filter, {}},
    {"list", kFilterStarted, list, {}},
    {"get-info", kFilterStarted, get_info, {}},
    {"clear", kFilterStarted, on_map<TRAK_CLR_BMP>, {}},
    {"save", kFilterStarted, on_map<TRAK_SAVE_BMP>, {}},
    {"load", kFilterStarted, on_map<TRAK_LOAD_BMP>, {}},
    {"set", kFilterStarted, with_bits<TRAK_SET_BMP>, {}},
    {"merge", kFilterStarted, with_bits<TRAK_MERGE_BMP>, {}},
    {"get", kFilterStarted, with_bits<TRAK_GET_BMP>, {}},
    {"get-clear", kFilterStarted, with_bits<TRAK_GET_AND_CLR_BMP>, {}},
    {"write", kFilterStarted, write_page, {}},
    {"start-snap", kSnapAdded, start_snap, {EAGAIN, EINVAL}, false},
    {"datablock", kSnapStarted, datablock, {}},
    {"write-snap", kSnapStarted, write_page, {}},
    {"read-snap", kSnapStarted, read_snap, {}},
    {"stop-snap", kSnapStarted, stop_snap, {}, false},
    {"delete-snap", kSnapStarted, delete_snap, {}, false},
    {"stop-filter", kFilterStarted, stop_filter, {}, false},
    {"delete-filter", kFilterStarted, delete_filter, {}, false},
};

void close_nodes(Node &node) {
    for (int *fd : {&node.filter, &node.snap}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
}

[[noreturn]] void wrong(const std::string &what, int rc) {
    std::printf("%s: %d (%s)\n", what.c_str(), rc, std::strerror(rc));
    std::exit(1);
}

void must(const char *what, int rc) {
    if (rc != 0)
        wrong(what, rc);
}

// Both nodes go, whatever was made of them.
void clear_away(Node &node) {
    close_nodes(node);
    for (const std::uint32_t minor : {kSnap, kFilter}) {
        int rc = 0, tries = 0;
        for (info(node, minor, &rc); rc == 0; info(node, minor, &rc)) {
            of_minor(node, TRAK_DEL_NODE, minor);
            if (++tries == kTries)
                wrong("node " + std::to_string(minor) + " can't be deleted", rc);
            if (tries > 1)
                poll(nullptr, 0, 100);
        }
        if (rc != EINVAL)
            wrong("node " + std::to_string(minor) + " after its end", rc);
    }
}

int open_node(const char *path) {
    for (int tries = 0; tries < kTries; ++tries) {
        const int fd = open(path, O_DIRECT | O_CLOEXEC | (path[14] == '1' ? O_RDONLY : O_RDWR));
        if (fd >= 0)
            return fd;
        poll(nullptr, 0, 100);
    }
    die(path);
}

void build(Node &node, Level level) {
    if (level >= kFilterAdded)
        must("add the filter", add_filter(node));
    if (level >= kFilterStarted) {
        must("start the filter", start_filter(node));
        int rc = 0;
        node.bits_size = info(node, kFilter, &rc)->incr_bmp_size;
        must("ask about the filter", rc);
        node.filter = open_node("/dev/trak/trak0");
    }
    if (level >= kSnapAdded)
        must("add the snap", add_snap(node));
    if (level >= kSnapStarted) {
        if (pread(node.filter, node.old_page, kPage, kPlace) != static_cast<ssize_t>(kPage))
            die("read the filter");
        must("start the snap", start_snap(node));
        node.snap = open_node("/dev/trak/trak1");
    }
}

// A started snapshot shows what was there, or is invalid and shows nothing.
void judge_snap(Node &node, std::map<std::string, unsigned> &tally) {
    const bool valid = is_valid(node);
    const int rc = read_snap(node);
    if (valid && rc == 0 && std::memcmp(node.page, node.old_page, kPage) != 0)
        wrong("the image is another one", 0);
    if (valid && rc != 0)
        wrong("a valid snapshot can't be read", rc);
    if (!valid && rc == 0)
        wrong("an invalid snapshot is read", rc);
    ++tally[valid ? "snapshot true" : "snapshot invalid"];
}

bool is_stated(const Step &step, int rc) {
    for (const int one : {0, ENOMEM, EIO, EFAULT})
        if (rc == one)
            return true;
    return std::find(step.stated.begin(), step.stated.end(), rc) != step.stated.end();
}

// One step with one failure in it, after so many bytes; false when nothing was left that could fail.
bool once(Node &node, const Step &step, Faults &faults, std::uint64_t space,
          std::map<std::string, unsigned> &tally) {
    const bool is_closed = step.run == stop_snap || step.run == delete_snap ||
                           step.run == stop_filter || step.run == delete_filter;
    build(node, step.before);
    if (is_closed)
        close_nodes(node);
    faults.arm(space, step.before == kSnapStarted && !is_closed);
    const int rc = step.run(node);
    const bool failed = faults.disarm();
    if (!is_stated(step, rc))
        wrong(std::string(step.name) + " failed with what is not stated", rc);
    if (!failed && rc != 0)
        wrong(std::string(step.name) + " failed without a failure", rc);
    if (failed)
        ++tally[rc == 0 ? "passed" : std::strerror(rc)];
    if (step.before == kSnapStarted && !is_closed)
        judge_snap(node, tally);
    if (rc != 0 && step.again)
        must("the same step again", step.run(node));
    clear_away(node);
    return failed;
}

unsigned char *locked_pages(std::size_t bytes) {
    void *at = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED)
        die("mmap");
    std::memset(at, 1, bytes);
    return static_cast<unsigned char *>(at);
}

// The stack too is there before anything fails.
[[gnu::noinline]] void touch_stack() {
    volatile unsigned char room[65536];
    for (std::size_t at = 0; at < sizeof room; at += 512)
        room[at] = 0;
}

}  // namespace

int failing(const Words &words) {
    Node node;
    node.control = open(words[1].c_str(), O_RDWR | O_CLOEXEC);
    if (node.control < 0)
        die(words[1]);
    node.disk = words[2];
    node.folder = words[3];
    node.bits = locked_pages(65536);
    node.page = locked_pages(kPage);
    node.old_page = locked_pages(kPage);
    // No page is to be fetched while this process is marked: the kernel ends who gets none.
    touch_stack();
    if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0)
        die("mlockall");
    Faults faults(words[0]);
    const std::uint64_t least = words[0] == "failslab"          ? 16
                                : words[0] == "fail_page_alloc" ? 1
                                                                : 512;
    unsigned all = 0;
    clear_away(node);
    for (const Step &step : kSteps) {
        if (step.run == add_filter && words[0] != "fail_make_request")
            continue;
        std::map<std::string, unsigned> tally;
        std::uint64_t space = 1;
        unsigned places = 0;
        while (places < kMostPlaces && once(node, step, faults, space, tally)) {
            ++places;
            space += std::max(least, space / 24);
        }
        all += places;
        std::printf("%s: %u failures", step.name, places);
        for (const auto &[what, count] : tally)
            std::printf(", %s %u", what.c_str(), count);
        std::printf("\n");
    }
    std::printf("%u failures in all\n", all);
    return all == 0 ? 1 : 0;
}

// Writes past the cache, one after the other, by a marked process: each passes or fails with what is stated.
// Says how many of them did.
int failing_writes(const Words &words) {
    const int fd = open(words[0].c_str(), O_RDWR | O_DIRECT | O_CLOEXEC);
    const off_t size = fd < 0 ? -1 : lseek(fd, 0, SEEK_END);
    if (size < static_cast<off_t>(kPage))
        die(words[0]);
    Random random(number(words[1]));
    unsigned char *data = locked_pages(16 * kPage);
    std::map<int, unsigned> tally;
    put_text("/proc/self/make-it-fail", "1");
    for (std::uint64_t n = number(words[2]); n > 0; --n) {
        const std::size_t bytes = 512 * (1 + random.below(128));
        const auto last = static_cast<std::uint64_t>(size) - bytes;
        std::memset(data, static_cast<int>(random.next()), bytes);
        const ssize_t done =
            pwrite(fd, data, bytes, static_cast<off_t>(random.below(last / 512) * 512));
        ++tally[done >= 0 ? 0 : errno];
    }
    put_text("/proc/self/make-it-fail", "0");
    bool stated = true;
    for (const auto &[error, count] : tally) {
        stated = stated && (error == 0 || error == EIO || error == ENOMEM);
        std::printf("%s: %u\n", error == 0 ? "passed" : std::strerror(error), count);
    }
    return stated && close(fd) == 0 ? 0 : 1;
}

}  // namespace vm_tool
