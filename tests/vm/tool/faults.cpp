// tests/vm/tool/faults.cpp: failures that the kernel makes for this process and for the driver's threads
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/vm/tool/faults.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

constexpr std::uint64_t kSmallAllocation = 16, kSector = 512;

std::uint64_t step_of(const std::string &kind) {
    if (kind == "fail_make_request")
        return kSector;
    const bool counted = text_of("/sys/module/trak_spare/parameters/counted") == "should_fail\n";
    return kind == "fail_page_alloc" || counted ? 1 : kSmallAllocation;
}

// The stack too is there before anything fails.
[[gnu::noinline]] void touch_stack() {
    volatile unsigned char room[65536];
    for (std::size_t at = 0; at < sizeof room; at += 512)
        room[at] = 0;
}

}  // namespace

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

Faults::Faults(const std::string &kind)
    : folder_("/sys/kernel/debug/" + kind + "/"), step_(step_of(kind)) {
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

void Faults::arm(std::uint64_t space, bool threads) {
    set("space", space);
    set("times", 1);
    if (threads)
        mark_threads();
    mark_self('1');
}

bool Faults::disarm() {
    mark_self('0');
    const bool failed = number(text_of(folder_ + "times").substr(0, 1)) == 0;
    set("times", 0);
    return failed;
}

void Faults::set(const char *name, std::uint64_t value) {
    put_text(folder_ + name, std::to_string(value));
}

void Faults::mark_self(char c) {
    if (pwrite(own_, &c, 1, 0) != 1)
        die("make-it-fail");
}

void Faults::mark_threads() {
    DIR *all = opendir("/proc");
    while (const dirent *one = all != nullptr ? readdir(all) : nullptr) {
        const std::string folder = std::string("/proc/") + one->d_name;
        const std::string stat = one->d_name[0] <= '9' ? text_of(folder + "/stat") : "";
        if (stat.find("(kcowd") != std::string::npos || stat.find("(kdirtyd") != std::string::npos)
            put_text(folder + "/make-it-fail", "1");
    }
    if (all != nullptr)
        closedir(all);
}

unsigned char *locked_pages(std::size_t bytes) {
    void *at = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED)
        die("mmap");
    std::memset(at, 1, bytes);
    return static_cast<unsigned char *>(at);
}

void stay_in_memory() {
    touch_stack();
    if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0)
        die("mlockall");
}

}  // namespace vm_tool
