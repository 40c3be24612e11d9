// daemon/buffers.h: page-aligned memory for the data of requests
// SPDX-License-Identifier: GPL-2.0-only
//
// Memory that was used once is kept for the next request, up to a bound per size, so that the path
// of a write needs none from the kernel when memory is short. There is no bound to what is handed
// out: a bound would let requests that wait for each other's end wait for memory instead. What the
// kernel has under way at once bounds it.
#ifndef TRAKD_BUFFERS_H
#define TRAKD_BUFFERS_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace trakd {

inline constexpr std::size_t kPage = 4096;
// The largest read or write that a FUSE request carries here.
inline constexpr std::size_t kMaxIo = std::size_t{1} << 20;

// Owner   whoever holds it; moves. Empty when there was no memory.
class Buffer {
  public:
    Buffer() = default;
    Buffer(Buffer &&other) noexcept : data_(other.data_), cls_(other.cls_) {
        other.data_ = nullptr;
    }
    Buffer &operator=(Buffer &&other) noexcept;
    ~Buffer() { reset(); }

    // At least `size` bytes, aligned to a page, contents undefined. Empty without memory.
    static Buffer get(std::size_t size);
    void reset();
    std::uint8_t *data() const { return data_; }
    std::size_t capacity() const;
    explicit operator bool() const { return data_ != nullptr; }

  private:
    std::uint8_t *data_ = nullptr;
    unsigned cls_ = 0;
};

// Fills the store with what an ordinary load needs. Called once, before requests arrive.
void buffers_warm_up();

}  // namespace trakd

#endif
