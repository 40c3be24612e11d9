// os/user/uaccess.cpp: memory of the process that issued a command
// SPDX-License-Identifier: GPL-2.0-only
//
// The record of a command came with it: addresses inside it are served from the window. Everything
// else is reached in the caller with process_vm_readv and process_vm_writev; whoever presents the
// command holds the caller in its call meanwhile, so its process id cannot change hands.
#include "os/uaccess.h"

#include <sys/uio.h>

#include <algorithm>
#include <cstring>

#include "os/base.h"
#include "os/user/task.h"

namespace user {

namespace {

constexpr os_uaddr kAddressLimit = 0x7ffffffff000;
constexpr std::size_t kPagesAtOnce = 64;

enum class Direction { kFromCaller, kToCaller };

// Bytes moved, all of them below one edge of the window. The remote side is cut at its pages: a
// call stops before the first piece that it can't move, so the count is right to the page.
std::size_t move_remote(pid_t pid, os_uaddr addr, char *local, std::size_t size, Direction dir) {
    if (pid <= 0)
        return 0;
    std::size_t moved = 0;
    while (moved < size) {
        iovec remote[kPagesAtOnce];
        std::size_t pieces = 0;
        std::size_t batch = 0;
        for (; pieces < kPagesAtOnce && moved + batch < size; pieces++) {
            os_uaddr at = addr + moved + batch;
            std::size_t piece =
                std::min<std::size_t>(size - moved - batch, OS_PAGE_SIZE - at % OS_PAGE_SIZE);
            remote[pieces] = {reinterpret_cast<void *>(at), piece};
            batch += piece;
        }
        iovec here = {local + moved, batch};
        ssize_t done = dir == Direction::kFromCaller
                           ? process_vm_readv(pid, &here, 1, remote, pieces, 0)
                           : process_vm_writev(pid, &here, 1, remote, pieces, 0);
        if (done <= 0)
            break;
        moved += static_cast<std::size_t>(done);
        if (static_cast<std::size_t>(done) < batch)
            break;
    }
    return moved;
}

std::size_t not_moved(os_uaddr addr, char *local, std::size_t size, Direction dir) {
    const Caller *caller = current().caller;
    if (!caller || !os_access_ok(OS_VERIFY_READ, addr, size))
        return size;
    os_uaddr first = caller->window_addr;
    os_uaddr end = first + caller->window.size();
    while (size) {
        std::size_t piece, moved;
        if (addr >= first && addr < end) {
            piece = moved = std::min<std::size_t>(size, end - addr);
            char *window = reinterpret_cast<char *>(caller->window.data()) + (addr - first);
            if (dir == Direction::kFromCaller)
                memcpy(local, window, piece);
            else
                memcpy(window, local, piece);
        } else {
            piece = addr < first ? std::min<std::size_t>(size, first - addr) : size;
            moved = move_remote(caller->pid, addr, local, piece, dir);
        }
        addr += moved;
        local += moved;
        size -= moved;
        if (moved < piece)
            break;
    }
    return size;
}

}  // namespace

}  // namespace user

extern "C" {

bool os_access_ok(os_access, os_uaddr addr, size_t size) {
    return size <= user::kAddressLimit && addr <= user::kAddressLimit - size;
}

size_t os_copy_from_user(void *to, os_uaddr from, size_t size) {
    user::might_sleep("os_copy_from_user");
    return user::not_moved(from, static_cast<char *>(to), size, user::Direction::kFromCaller);
}

size_t os_copy_to_user(os_uaddr to, const void *from, size_t size) {
    user::might_sleep("os_copy_to_user");
    char *local = const_cast<char *>(static_cast<const char *>(from));
    return user::not_moved(to, local, size, user::Direction::kToCaller);
}

}  // extern "C"
