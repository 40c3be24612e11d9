// agent/events.cpp: what a run tells: one JSON object a line, or sentences and a progress bar
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/events.h"

#include "agent/manifest.h"

#include <algorithm>
#include <ostream>

#include <fmt/format.h>

namespace agent {

volatile int interrupted;

void check_interrupt() {
    if (interrupted)
        throw Interrupted{};
}

std::string size_text(uint64_t bytes) {
    static constexpr const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    while (unit < 6 && value >= 1023.5) {
        value /= 1024;
        unit++;
    }
    return unit == 0 || value >= 99.95 ? fmt::format("{:.0f} {}", value, units[unit])
                                       : fmt::format("{:.1f} {}", value, units[unit]);
}

std::string duration_text(double seconds) {
    if (seconds < 59.5)
        return fmt::format("{:.0f} s", seconds);
    auto whole = static_cast<uint64_t>(seconds + 0.5);
    if (whole < 3600)
        return fmt::format("{} min {} s", whole / 60, whole % 60);
    return fmt::format("{} h {} min", whole / 3600, whole % 3600 / 60);
}

void Events::clear_bar() {
    if (bar_)
        *err << "\r\033[K" << std::flush;
    bar_ = false;
}

void Events::say(const char *name, nlohmann::json fields, const std::string &text) {
    clear_bar();
    if (json) {
        fields["event"] = name;
        fields["time"] = now_text();
        *out << fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
    } else if (!text.empty()) {
        *out << text << std::endl;
    }
}

void Events::notice(const std::string &text) {
    clear_bar();
    if (json)
        say("notice", {{"text", text}}, "");
    else
        *err << "trak-backup: note: " << text << std::endl;
}

void Events::error(const std::string &text) {
    clear_bar();
    if (json)
        say("error", {{"text", text}}, "");
    *err << "trak-backup: " << text << std::endl;
}

// Shorter than `columns`: a line that is as long as the terminal is wide may be wrapped. What tells
// least is left out first.
std::string bar_text(const char *phase, double share, unsigned columns, uint64_t done,
                     uint64_t total, double rate, double left) {
    std::string percent = fmt::format(" {:3.0f}%", share * 100),
                speed = size_text(static_cast<uint64_t>(rate)) + "/s",
                rest = duration_text(left) + " left", head = fmt::format("{:<9}", phase);
    std::string tail =
        fmt::format("{} {} of {}, {}, {}", percent, size_text(done), size_text(total), speed, rest);
    constexpr size_t least_bar = 6, most_bar = 40;
    if (head.size() + tail.size() + least_bar + 2 < columns) {
        size_t width = std::min(most_bar, columns - 1 - head.size() - tail.size() - 2);
        auto filled = static_cast<size_t>(share * static_cast<double>(width));
        return fmt::format("{}[{}{}]{}", head, std::string(filled, '='),
                           std::string(width - filled, ' '), tail);
    }
    for (const std::string &text :
         {head + tail, fmt::format("{}{} {}, {}", head, percent, speed, rest),
          fmt::format("{}{} {}", head, percent, rest)})
        if (text.size() < columns)
            return text;
    return (head + percent).substr(0, columns > 0 ? columns - 1 : 0);
}

void Events::progress(const char *phase, uint64_t done, uint64_t total, bool last) {
    auto now = Clock::now();
    if (phase_ != phase) {
        phase_ = phase;
        begun_ = now;
        shown_ = now;
    }
    if (!last && now - shown_ < std::chrono::milliseconds(500))
        return;
    if (!json && !terminal)
        return;
    shown_ = now;
    double passed = std::chrono::duration<double>(now - begun_).count();
    double rate = passed > 0 ? static_cast<double>(done) / passed : 0;
    double left = rate > 0 ? static_cast<double>(total - std::min(done, total)) / rate : 0;
    if (json) {
        say("progress",
            {{"phase", phase}, {"done", done}, {"total", total}, {"rate", rate}, {"left", left}},
            "");
        return;
    }
    double share = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 1;
    *err << '\r' << bar_text(phase, share, columns, done, total, rate, left) << "\033[K"
         << std::flush;
    bar_ = true;
    if (last)
        *err << "\n", bar_ = false;
}

}  // namespace agent
