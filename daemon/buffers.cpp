// daemon/buffers.cpp: page-aligned memory for the data of requests
// SPDX-License-Identifier: GPL-2.0-only
//
// Classes of 4 KiB, 8 KiB, ... 1 MiB, each with a list and a lock of its own. A request that carries
// the most needs a page more than its data (receivers.h): the class above 1 MiB is only a little
// larger than that.
#include "daemon/buffers.h"

#include <sys/mman.h>

#include <bit>
#include <utility>

namespace trakd {

namespace {

constexpr unsigned kClasses = 10;
constexpr std::size_t kTopClass = kMaxIo + 16 * kPage;

constexpr std::size_t class_size(unsigned cls) {
    return cls == kClasses - 1 ? kTopClass : kPage << cls;
}

struct Store {
    std::mutex mutex;
    std::vector<std::uint8_t *> blocks;
};

Store &store(unsigned cls) {
    static Store stores[kClasses];
    return stores[cls];
}

// How many blocks are kept: 64 of the smallest, 8 of the largest.
constexpr std::size_t keep(unsigned cls) {
    return cls < 4 ? 64 : cls < 7 ? 16 : 8;
}

std::uint8_t *map(std::size_t size) {
    void *mem = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return mem == MAP_FAILED ? nullptr : static_cast<std::uint8_t *>(mem);
}

}  // namespace

Buffer &Buffer::operator=(Buffer &&other) noexcept {
    std::swap(data_, other.data_);
    std::swap(cls_, other.cls_);
    return *this;
}

Buffer Buffer::get(std::size_t size) {
    Buffer buffer;
    if (size > kTopClass) {
        return buffer;
    }
    const std::size_t pages = size <= kPage ? 1 : std::bit_ceil((size + kPage - 1) / kPage);
    const unsigned cls =
        size > kMaxIo ? kClasses - 1 : static_cast<unsigned>(std::countr_zero(pages));
    Store &from = store(cls);
    buffer.cls_ = cls;
    {
        const std::lock_guard lock(from.mutex);
        if (!from.blocks.empty()) {
            buffer.data_ = from.blocks.back();
            from.blocks.pop_back();
            return buffer;
        }
    }
    buffer.data_ = map(class_size(cls));
    return buffer;
}

void Buffer::reset() {
    if (data_ == nullptr) {
        return;
    }
    std::uint8_t *block = std::exchange(data_, nullptr);
    Store &to = store(cls_);
    {
        const std::lock_guard lock(to.mutex);
        if (to.blocks.size() < keep(cls_)) {
            to.blocks.push_back(block);
            return;
        }
    }
    ::munmap(block, class_size(cls_));
}

std::size_t Buffer::capacity() const {
    return class_size(cls_);
}

void buffers_warm_up() {
    for (unsigned cls = 0; cls < kClasses; ++cls) {
        Store &to = store(cls);
        const std::lock_guard lock(to.mutex);
        to.blocks.reserve(keep(cls));
        const std::size_t wanted = cls == 0 ? 64 : cls < 5 ? 8 : 2;
        while (to.blocks.size() < wanted) {
            std::uint8_t *block = map(class_size(cls));
            if (block == nullptr) {
                return;
            }
            to.blocks.push_back(block);
        }
    }
}

}  // namespace trakd
