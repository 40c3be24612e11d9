// agent/cow_room.h: the room for what is overwritten while a snapshot runs
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/events.h"

#include <chrono>
#include <string>

namespace agent {

class CowRoom {
  public:
    // Throws Failure where less than `reserve` bytes are free (0: a hundredth of the disk, within
    // 1 MiB and 1 GiB).
    CowRoom(Events &events, std::string folder, uint64_t disk_size, uint64_t reserve);
    const std::string &folder() const { return folder_; }
    // The copy begins now.
    void begin();
    // At most once a second: looks how fast the room is used up, by whomever. Where it may not last
    // twice as long as the copy (as long as nothing is copied: not a minute), says how long it
    // lasts; again when it is half as much.
    void look(uint64_t done, uint64_t total);

  private:
    using Clock = std::chrono::steady_clock;
    Events &events_;
    std::string folder_;
    Clock::time_point begun_, looked_;
    uint64_t free_ = 0;
    double told_ = -1;
};

}  // namespace agent
