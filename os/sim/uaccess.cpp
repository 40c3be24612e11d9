// os/sim/uaccess.cpp: memory of the calling process
// SPDX-License-Identifier: GPL-2.0-only
//
// One address space for all processes of a World, none for kernel threads. Regions lie apart, end
// where they were asked to end, and at addresses where the host has nothing: whoever uses one as a
// pointer crashes.
#include "os/uaccess.h"

#include <cstdlib>
#include <cstring>

#include "os/sim/kernel.h"

namespace sim {
namespace {

UserRegion *region_at(os_uaddr addr) {
    for (UserRegion &region : kernel().regions)
        if (addr >= region.addr && addr - region.addr < region.size)
            return &region;
    return nullptr;
}

// Moves up to size bytes; returns how many could not be moved.
std::size_t copy_user(os_uaddr addr, void *buf, std::size_t size, bool to_user) {
    const os_task &task = self();
    auto *bytes = static_cast<std::uint8_t *>(buf);
    if (task.kernel || !os_access_ok(to_user ? OS_VERIFY_WRITE : OS_VERIFY_READ, addr, size))
        return size;
    while (size) {
        UserRegion *region = region_at(addr);
        if (!region || !(to_user ? region->writable : region->readable))
            return size;
        std::size_t offset = addr - region->addr;
        std::size_t n = std::min(size, region->size - offset);
        if (to_user)
            std::memcpy(region->bytes + offset, bytes, n);
        else
            std::memcpy(bytes, region->bytes + offset, n);
        bytes += n;
        addr += n;
        size -= n;
    }
    return 0;
}

std::size_t copy(os_uaddr addr, void *buf, std::size_t size, bool to_user, const char *function) {
    might_sleep(function);
    point();
    if (size == 0)
        return 0;
    if (!fault(Fault::kCopy))
        return copy_user(addr, buf, size, to_user);
    std::size_t moved = kernel().rng.below(size);
    return size - moved + copy_user(addr, buf, moved, to_user);
}

}  // namespace

os_uaddr user_alloc(std::size_t size) {
    Kernel &k = kernel();
    // malloc(0) would do, but an empty region must not be found at its own address either.
    auto *bytes = static_cast<std::uint8_t *>(std::calloc(size ? size : 1, 1));
    if (!bytes)
        fail("the test machine has no %zu bytes", size);
    os_uaddr addr = k.next_region;
    k.next_region += (size + 0x1fff) & ~std::uint64_t{0xfff};
    k.regions.push_back({addr, size, true, true, bytes});
    return addr;
}

void user_free(os_uaddr addr) {
    auto &regions = kernel().regions;
    for (std::size_t i = 0; i < regions.size(); i++) {
        if (regions[i].addr != addr)
            continue;
        std::free(regions[i].bytes);
        regions.erase(regions.begin() + static_cast<std::ptrdiff_t>(i));
        return;
    }
    fail("user_free: 0x%llx was not allocated", static_cast<unsigned long long>(addr));
}

std::span<std::uint8_t> user_bytes(os_uaddr addr, std::size_t size) {
    UserRegion *region = region_at(addr);
    if (!region || size > region->size - (addr - region->addr)) {
        if (size == 0)
            return {};
        fail("user_bytes: 0x%llx was not allocated", static_cast<unsigned long long>(addr));
    }
    return {region->bytes + (addr - region->addr), size};
}

void user_protect(os_uaddr addr, bool readable, bool writable) {
    UserRegion *region = region_at(addr);
    if (!region)
        fail("user_protect: 0x%llx was not allocated", static_cast<unsigned long long>(addr));
    region->readable = readable;
    region->writable = writable;
}

void user_drop_all() {
    for (UserRegion &region : kernel().regions)
        std::free(region.bytes);
    kernel().regions.clear();
}

}  // namespace sim

using namespace sim;

extern "C" {

bool os_access_ok(enum os_access type, os_uaddr addr, size_t size) {
    (void)type;
    return addr <= kUserLimit && size <= kUserLimit - addr;
}

size_t os_copy_from_user(void *to, os_uaddr from, size_t size) {
    return copy(from, to, size, false, "os_copy_from_user");
}

size_t os_copy_to_user(os_uaddr to, const void *from, size_t size) {
    return copy(to, const_cast<void *>(from), size, true, "os_copy_to_user");
}

}  // extern "C"
