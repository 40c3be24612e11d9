// tests/vm/tool/failing_steps.cpp: the driver's calls, each with what must be there before it
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/vm/tool/failing_steps.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "abi/trak_ioctl.h"
#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

constexpr std::uint32_t kFilter = 0, kSnap = 1;
constexpr char kFilterNode[] = "/dev/trak/trak0", kSnapNode[] = "/dev/trak/trak1";
constexpr std::uint32_t kExtent = 65536;
// What the steps write and read: a place in the table of inodes, since what no file uses is not preserved.
constexpr std::uint64_t kPlace = kExtent;
constexpr int kTries = 1200;  // of 100 ms: what must come true within two minutes

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

int open_node(const char *path, int mode) {
    for (int tries = 0; tries < kTries; ++tries) {
        const int fd = open(path, O_DIRECT | O_CLOEXEC | mode);
        if (fd >= 0)
            return fd;
        poll(nullptr, 0, 100);
    }
    die(path);
}

int add_filter(Node &node) {
    trak_add_filter_arg arg{};
    std::snprintf(arg.hdd_name, sizeof arg.hdd_name, "%s", node.disk.c_str());
    std::snprintf(arg.bmp_dir, sizeof arg.bmp_dir, "%s", node.folder.c_str());
    arg.minor = kFilter;
    arg.extent_size = kExtent;
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
    trak_datablock_arg arg{kSnap, kExtent, 4096, 0, reinterpret_cast<std::uint64_t>(node.bits)};
    return call(node, TRAK_GET_DATABLOCK_BMP, &arg);
}

int transferred(ssize_t n) {
    return n == static_cast<ssize_t>(kPage) ? 0 : n < 0 ? errno : EIO;
}

// Other contents each time.
int write_page(Node &node) {
    static unsigned contents;
    std::memset(node.page, 0x55, kPage);
    std::memcpy(node.page, &++contents, sizeof contents);
    return transferred(pwrite(node.filter, node.page, kPage, kPlace));
}

// The last close saves the maps.
int close_written(Node &node) {
    if (node.filter < 0)
        node.filter = open_node(kFilterNode, O_RDWR);
    const int rc = write_page(node);
    if (rc != 0)
        return rc;
    const int fd = node.filter;
    node.filter = -1;
    return close(fd) == 0 ? 0 : errno;
}

// What a lookup under /proc ends with is the kernel's: the file is open before.
int read_proc(Node &node) {
    char text[64];
    return pread(node.proc, text, sizeof text, 0) > 0 ? 0 : errno;
}

int test_datablock(Node &node) {
    static trak_test_datablock_arg arg;
    std::snprintf(arg.hdd_name, sizeof arg.hdd_name, "%s", node.disk.c_str());
    return call(node, TRAK_TEST_DATABLOCK, &arg);
}

int resume_snap(Node &node) {
    trak_resume_arg arg{kSnap, 1, 0, 0};
    return call(node, TRAK_RESUME_SNAP, &arg);
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

const Step kCreations[] = {
    {"add-filter", kNothing, add_filter, {EINVAL, ENOENT}},
    {"add-snap", kFilterStarted, add_snap, {EINVAL}},
};

const Step kCalls[] = {
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
    {"write", kFilterStarted, write_page, {}, kOpen, true, true},
    {"close", kFilterStarted, close_written, {}, kOpen, true, true},
    {"proc", kFilterStarted, read_proc, {}},
    {"test-datablock", kNothing, test_datablock, {EINVAL, ENOENT}},
    {"start-snap", kSnapAdded, start_snap, {EAGAIN, EINVAL}, kOpen, false},
    {"datablock", kSnapStarted, datablock, {}},
    {"write-snap", kSnapStarted, write_page, {}, kOpen, true, true},
    {"read-snap", kSnapStarted, read_snap, {}},
    {"resume-snap", kSnapStopped, resume_snap, {}},
    {"stop-snap", kSnapStarted, stop_snap, {}, kClosed, false},
    {"delete-snap", kSnapStarted, delete_snap, {}, kClosed, false},
    {"stop-filter", kFilterStarted, stop_filter, {}, kClosed, false},
    {"delete-filter", kFilterStarted, delete_filter, {}, kClosed, false},
};

bool is_valid(const Node &node) {
    int rc = 0;
    return info(node, kSnap, &rc)->snap_valid == 1 && rc == 0;
}

}  // namespace

std::span<const Step> creations() {
    return kCreations;
}

std::span<const Step> calls() {
    return kCalls;
}

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

void build(Node &node, Level level) {
    if (level >= kFilterAdded)
        must("add the filter", add_filter(node));
    if (level >= kFilterStarted) {
        must("start the filter", start_filter(node));
        int rc = 0;
        node.bits_size = info(node, kFilter, &rc)->incr_bmp_size;
        must("ask about the filter", rc);
        node.filter = open_node(kFilterNode, O_RDWR);
    }
    if (level >= kSnapAdded)
        must("add the snap", add_snap(node));
    if (level >= kSnapStarted) {
        if (pread(node.filter, node.old_page, kPage, kPlace) != static_cast<ssize_t>(kPage))
            die("read the filter");
        must("start the snap", start_snap(node));
    }
    if (level == kSnapStarted)
        node.snap = open_node(kSnapNode, O_RDONLY);
    if (level == kSnapStopped)
        must("stop the snap", stop_snap(node));
}

void clean_map(Node &node) {
    must("clear the map", on_map<TRAK_CLR_BMP>(node));
    must("save the map", on_map<TRAK_SAVE_BMP>(node));
}

const char *judge_snap(Node &node) {
    const bool valid = is_valid(node);
    const int rc = read_snap(node);
    if (valid && rc == 0 && std::memcmp(node.page, node.old_page, kPage) != 0)
        wrong("the image is another one", 0);
    if (valid && rc != 0)
        wrong("a valid snapshot can't be read", rc);
    if (!valid && rc == 0)
        wrong("an invalid snapshot is read", rc);
    return valid ? "snapshot true" : "snapshot invalid";
}

void judge_map(Node &node) {
    must("get the map", with_bits<TRAK_GET_BMP>(node));
    if ((node.bits[kPlace / kExtent >> 3] >> (kPlace / kExtent & 7) & 1) == 0)
        wrong("a write is not marked", 0);
}

}  // namespace vm_tool
