// agent/cow_room.cpp: the room for what is overwritten while a snapshot runs
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/cow_room.h"

#include "agent/files.h"

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace agent {

CowRoom::CowRoom(Events &events, std::string folder, uint64_t disk_size, uint64_t reserve)
    : events_(events), folder_(std::move(folder)) {
    if (reserve == 0)
        reserve = std::clamp<uint64_t>(disk_size / 100, 1 << 20, uint64_t{1} << 30);
    uint64_t room = files::free_bytes(folder_);
    if (room < reserve)
        throw Failure(
            fmt::format("{} has {} free, and {} are wanted there for what is written while the "
                        "snapshot runs: make room, give another --cow-dir, or a smaller "
                        "--cow-reserve",
                        folder_, size_text(room), size_text(reserve)),
            ENOSPC);
}

void CowRoom::begin() {
    begun_ = looked_ = Clock::now();
    free_ = files::free_bytes(folder_);
}

void CowRoom::look(uint64_t done, uint64_t total) {
    auto now = Clock::now();
    double passed = std::chrono::duration<double>(now - looked_).count();
    if (passed < 1)
        return;
    uint64_t room;
    try {
        room = files::free_bytes(folder_);
    } catch (const Failure &) {
        return;  // the snapshot itself will tell
    }
    double used = free_ > room ? static_cast<double>(free_ - room) / passed : 0;
    looked_ = now;
    free_ = room;
    if (used <= 0)
        return;
    double lasts = static_cast<double>(room) / used;
    double copying = std::chrono::duration<double>(now - begun_).count();
    double needed =
        done > 0 ? copying * static_cast<double>(total - done) / static_cast<double>(done) : 0;
    // The image may grow in the same file system: only what may be short is told.
    bool enough = done > 0 ? lasts > needed * 2 : lasts > 60;
    if (enough || (told_ >= 0 && lasts > told_ / 2))
        return;
    told_ = lasts;
    events_.say("cow-space", {{"free", room}, {"lasts", lasts}, {"needed", needed}}, "");
    if (!events_.json)
        events_.notice(fmt::format("{} has room for about {} more of copy-on-write ({} free); the "
                                   "copy needs about {}",
                                   folder_, duration_text(lasts), size_text(room),
                                   duration_text(needed)));
}

}  // namespace agent
