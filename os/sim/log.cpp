// os/sim/log.cpp: the kernel's log, time and random bytes
// SPDX-License-Identifier: GPL-2.0-only
#include "os/log.h"

#include <cstdio>

#include "os/random.h"
#include "os/sim/kernel.h"
#include "os/time.h"

namespace sim {

std::vector<std::string> &log_lines() {
    static std::vector<std::string> lines;  // of the running or the last boot
    return lines;
}

const std::vector<std::string> &log() {
    return log_lines();
}

void clear_log() {
    log_lines().clear();
}

std::size_t count_log(std::string_view part) {
    std::size_t count = 0;
    for (const std::string &line : log_lines())
        count += line.find(part) != std::string::npos;
    return count;
}

}  // namespace sim

using namespace sim;

extern "C" {

void os_printk(const char *fmt, ...) {
    // The caller's text is taken after others may have run: who changes it under the call is seen.
    point();
    char text[2304];  // the longest message of the driver and its prefix
    va_list args;
    va_start(args, fmt);
    int length = std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    if (length < 0)
        fail("os_printk: bad format %s", fmt);
    auto size = static_cast<std::size_t>(length) < sizeof text ? static_cast<std::size_t>(length)
                                                               : sizeof text - 1;
    if (size && text[size - 1] == '\n')
        size--;
    log_lines().emplace_back(text, size);
}

int os_vsnprintf(char *buf, size_t size, const char *fmt, va_list args) {
    return std::vsnprintf(buf, size, fmt, args);
}

int os_snprintf(char *buf, size_t size, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int length = std::vsnprintf(buf, size, fmt, args);
    va_end(args);
    return length;
}

uint64_t os_jiffies(void) {
    return kernel().first_tick + kernel().now_us / 1000;
}

void os_get_random_bytes(void *buf, size_t count) {
    auto *bytes = static_cast<unsigned char *>(buf);
    for (size_t i = 0; i < count; i++)
        bytes[i] = static_cast<unsigned char>(kernel().random_bytes.next());
}

}  // extern "C"
