// tests/fuzz/quick_new.cpp: memory of the simulated machine's own, without the sanitizer's allocator
// SPDX-License-Identifier: GPL-2.0-only
//
// Maps and strings of the simulated kernel and of the fuzzer; nothing in here is the driver's, whose memory
// os/sim/memory.cpp takes from malloc. Pieces of one size class are given back to a list and never to the
// system.
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t kStep = 32;
constexpr std::size_t kLargest = 16384;
constexpr std::size_t kHeader = 16;  // holds the class; keeps the alignment of malloc
constexpr std::size_t kSlab = std::size_t{1} << 18;

struct Free {
    Free *next;
};
Free *g_free[kLargest / kStep + 1];
char *g_slab;
std::size_t g_slab_left;

char *fresh(std::size_t size) {
    if (size > g_slab_left) {
        g_slab = static_cast<char *>(std::malloc(kSlab));
        if (!g_slab)
            std::abort();
        g_slab_left = kSlab;
    }
    char *piece = g_slab;
    g_slab += size;
    g_slab_left -= size;
    return piece;
}

void *take(std::size_t size) {
    const std::size_t kind = size ? (size + kStep - 1) / kStep : 1;
    char *piece;
    if (size > kLargest) {
        piece = static_cast<char *>(std::malloc(kHeader + size));
        if (!piece)
            std::abort();
    } else if (Free *free = g_free[kind]) {
        g_free[kind] = free->next;
        return free;
    } else {
        piece = fresh(kHeader + kind * kStep);
    }
    *reinterpret_cast<std::size_t *>(piece) = size > kLargest ? 0 : kind + 1;
    return piece + kHeader;
}

void give(void *p) {
    if (!p)
        return;
    char *piece = static_cast<char *>(p) - kHeader;
    const std::size_t kind = *reinterpret_cast<std::size_t *>(piece);
    if (kind == 0) {
        std::free(piece);
        return;
    }
    auto *free = static_cast<Free *>(p);
    free->next = g_free[kind - 1];
    g_free[kind - 1] = free;
}

}  // namespace

void *operator new(std::size_t size) {
    return take(size);
}
void *operator new[](std::size_t size) {
    return take(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return take(size);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return take(size);
}
void operator delete(void *p) noexcept {
    give(p);
}
void operator delete[](void *p) noexcept {
    give(p);
}
void operator delete(void *p, std::size_t) noexcept {
    give(p);
}
void operator delete[](void *p, std::size_t) noexcept {
    give(p);
}
