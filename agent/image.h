// agent/image.h: images that qemu's tools read and write
// SPDX-License-Identifier: GPL-2.0-only
//
// Every function throws Failure with what the tool said.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace agent {

// One image open at a server; several requests may be under way. One thread uses it.
class ImageIo {
  public:
    virtual ~ImageIo() = default;
    virtual uint64_t size() const = 0;
    // Submit. `done` is called from within a later call of turn() or finish(), with an errno or 0;
    // the buffer stays valid until then. Nothing is called after the object is destroyed.
    using Done = std::function<void(int error)>;
    virtual void read(uint64_t offset, void *data, size_t size, Done done) = 0;
    virtual void write(uint64_t offset, const void *data, size_t size, Done done) = 0;
    virtual void zero(uint64_t offset, uint64_t size, Done done) = 0;
    // Waits for an answer, for wake_fd (-1: none) to become readable, or for the time.
    virtual void turn(int wake_fd, int timeout_ms) = 0;
    // All that was written is on the medium; the server closed the image and ended.
    virtual void finish() = 0;
    // Whether bytes from `offset` are allocated data in the chain: the length of the run in *length.
    virtual bool holds_data(uint64_t offset, uint64_t wanted, uint64_t *length) = 0;
};

class ImageTool {
  public:
    virtual ~ImageTool() = default;
    // An empty qcow2 image, which shows `backing` (a name in the same folder) where it is not empty.
    virtual void create(const std::string &path, uint64_t size, uint32_t cluster_size,
                        const std::string &backing) = 0;
    virtual std::unique_ptr<ImageIo> open_for_writing(const std::string &path) = 0;
    virtual std::unique_ptr<ImageIo> open_for_reading(const std::string &path) = 0;
    // qemu-img check: throws where it is not content.
    virtual void check(const std::string &path) = 0;
    // A copy of `path` at `to` that shows the same on top of `backing` (a name in the same folder;
    // empty: on top of nothing).
    virtual void merge(const std::string &path, const std::string &to, uint32_t cluster_size,
                       const std::string &backing) = 0;
    // Throws where the two do not show the same bytes.
    virtual void compare(const std::string &one, const std::string &other) = 0;
};

std::unique_ptr<ImageTool> qemu_tool();

}  // namespace agent
