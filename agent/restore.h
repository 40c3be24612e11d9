// agent/restore.h: a point of a chain, written to a file or a disk
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/events.h"
#include "agent/image.h"
#include "agent/store.h"

#include <functional>
#include <string>
#include <vector>

namespace agent {

// Reads a whole point through its image chain and compares each block with its hash.
struct PointJob {
    ImageTool *images = nullptr;
    const Store *store = nullptr;
    const Manifest *point = nullptr;
    // Bytes at an offset, in no order; blocks that hold nothing are left out.
    std::function<void(uint64_t offset, const uint8_t *data, size_t size)> data;
    // Runs that hold nothing, in rising order.
    std::function<void(uint64_t offset, uint64_t size)> zeros;
    std::function<void(uint64_t done, uint64_t total)> turn;
};

struct PointOutcome {
    uint64_t bytes_data = 0, blocks = 0, blocks_wrong = 0;
    std::vector<uint64_t> extents;  // the first ones that are wrong, at most 64
};

PointOutcome read_point(const PointJob &job);

struct RestoreOptions {
    std::string store, point = "latest", to;
    bool force = false;       // over an existing file, or a disk
    bool keep_going = false;  // although blocks are damaged
};

// Exit status. A file is there whole or not at all; a disk is written in place.
int restore(ImageTool &images, Events &events, const RestoreOptions &options);

std::string extent_names(const std::vector<uint64_t> &extents);

}  // namespace agent
