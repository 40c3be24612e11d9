// os/user/log.cpp: the kernel log, a bounded ring of lines
// SPDX-License-Identifier: GPL-2.0-only
#include "os/log.h"

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <string>

#include "os/user/internal.h"
#include "os/user/sync.h"
#include "os/user/user.h"

namespace user {

namespace {

struct Log {
    Mutex mutex;
    std::deque<std::string> lines USER_GUARDED_BY(mutex);
    std::size_t bytes USER_GUARDED_BY(mutex) = 0;
    std::size_t limit USER_GUARDED_BY(mutex) = std::size_t{16} << 20;
    std::uint64_t count USER_GUARDED_BY(mutex) = 0;  // lines ever
    LogSink sink USER_GUARDED_BY(mutex) = nullptr;
    void *sink_data USER_GUARDED_BY(mutex) = nullptr;
};

Log &the_log() {
    static Log *log = new Log;  // outlives every thread that may still print
    return *log;
}

void append(std::string &&line) {
    Log &log = the_log();
    Guard held(log.mutex);
    if (log.sink)
        log.sink(log.sink_data, line.data(), line.size());
    log.bytes += line.size();
    log.count++;
    log.lines.push_back(std::move(line));
    while (log.bytes > log.limit && log.lines.size() > 1) {
        log.bytes -= log.lines.front().size();
        log.lines.pop_front();
    }
}

}  // namespace

void log_start(std::size_t limit) {
    Log &log = the_log();
    Guard held(log.mutex);
    log.lines.clear();
    log.bytes = 0;
    log.count = 0;
    log.limit = limit;
}

std::string log_text() {
    Log &log = the_log();
    Guard held(log.mutex);
    std::string text;
    text.reserve(log.bytes + 100);
    std::uint64_t dropped = log.count - log.lines.size();
    if (dropped)
        text = "<4>log: " + std::to_string(dropped) + " older lines were dropped\n";
    for (const std::string &line : log.lines)
        text += line;
    return text;
}

std::uint64_t log_lines() {
    Log &log = the_log();
    Guard held(log.mutex);
    return log.count;
}

void set_log_sink(LogSink sink, void *data) {
    Log &log = the_log();
    Guard held(log.mutex);
    log.sink = sink;
    log.sink_data = data;
}

}  // namespace user

extern "C" {

void os_printk(const char *fmt, ...) {
    char text[2560];
    va_list args;
    va_start(args, fmt);
    int length = vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    if (length < 0)
        return;
    if (static_cast<size_t>(length) < sizeof(text)) {
        user::append(std::string(text, static_cast<size_t>(length)));
        return;
    }
    std::string longer(static_cast<size_t>(length) + 1, '\0');
    va_start(args, fmt);
    vsnprintf(longer.data(), longer.size(), fmt, args);
    va_end(args);
    longer.pop_back();
    user::append(std::move(longer));
}

int os_vsnprintf(char *buf, size_t size, const char *fmt, va_list args) {
    return vsnprintf(buf, size, fmt, args);
}

int os_snprintf(char *buf, size_t size, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int length = vsnprintf(buf, size, fmt, args);
    va_end(args);
    return length;
}

}  // extern "C"
