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
    std::string tail =
        fmt::format(" {:3.0f}% {} of {}, {}/s, {} left", share * 100, size_text(done),
                    size_text(total), size_text(static_cast<uint64_t>(rate)), duration_text(left));
    unsigned width = columns > tail.size() + 20
                         ? std::min<unsigned>(40, columns - static_cast<unsigned>(tail.size()) - 14)
                         : 0;
    auto filled = static_cast<unsigned>(share * width);
    *err << fmt::format("\r{:<9}[{}{}]{}\033[K", phase, std::string(filled, '='),
                        std::string(width - filled, ' '), tail)
         << std::flush;
    bar_ = true;
    if (last)
        *err << "\n", bar_ = false;
}

}  // namespace agent
