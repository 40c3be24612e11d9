// os/sim/fibre.cpp: stacks that one thread runs in turn
// SPDX-License-Identifier: GPL-2.0-only
#include "os/sim/fibre.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <vector>

#include "os/sim/sanitizer.h"

#if !defined(__x86_64__)
#error "the simulated kernel switches stacks on x86-64 only"
#endif

extern "C" void os_sim_switch(void **save_sp, void *load_sp);
extern "C" void os_sim_first();
// The registers that a call preserves, then the stack pointer. A new fibre starts in os_sim_first
// with its entry in r12 and the argument in r13, rsp aligned as before a call.
__asm__(".text\n"
        ".globl os_sim_switch\n"
        ".type os_sim_switch, @function\n"
        "os_sim_switch:\n"
        "  pushq %rbp\n  pushq %rbx\n  pushq %r12\n  pushq %r13\n  pushq %r14\n  pushq %r15\n"
        "  movq %rsp, (%rdi)\n"
        "  movq %rsi, %rsp\n"
        "  popq %r15\n  popq %r14\n  popq %r13\n  popq %r12\n  popq %rbx\n  popq %rbp\n"
        "  ret\n"
        ".size os_sim_switch, .-os_sim_switch\n"
        ".globl os_sim_first\n"
        ".type os_sim_first, @function\n"
        "os_sim_first:\n"
        "  .cfi_startproc\n"
        "  .cfi_undefined %rip\n"
        "  movq %r13, %rdi\n"
        "  call *%r12\n"
        "  ud2\n"
        "  .cfi_endproc\n"
        ".size os_sim_first, .-os_sim_first\n");

namespace __cxxabiv1 {
struct __cxa_eh_globals;
extern "C" __cxa_eh_globals *__cxa_get_globals() noexcept;
}  // namespace __cxxabiv1

namespace sim {
namespace {

constexpr std::size_t kGuardSize = 4096;
constexpr std::size_t kStackSize = 256 * 1024;

std::vector<void *> g_free_stacks;
Fibre *g_came_from;

void *map_stack() {
    void *p = mmap(nullptr, kGuardSize + kStackSize, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED || mprotect(p, kGuardSize, PROT_NONE) != 0) {
        std::perror("os/sim: no memory for a stack");
        std::abort();
    }
    return static_cast<char *>(p) + kGuardSize;
}

// What happens on the new stack after each switch. The stack that was left tells its bounds here,
// which is how those of the thread's own stack become known.
void arrived(Fibre &here) {
    (void)here;
#if OS_SIM_ASAN
    const void *bottom = nullptr;
    std::size_t size = 0;
    __sanitizer_finish_switch_fiber(here.fake_stack, &bottom, &size);
    if (!g_came_from->base) {
        g_came_from->base = const_cast<void *>(bottom);
        g_came_from->size = size;
    }
#endif
}

struct Start {
    Fibre *fibre;
    void (*entry)(void *);
    void *arg;
};

void first(void *p) {
    Start start = *static_cast<Start *>(p);
    arrived(*start.fibre);
    start.entry(start.arg);
    std::abort();
}

}  // namespace

void fibre_start(Fibre &fibre, void (*entry)(void *), void *arg) {
    if (g_free_stacks.empty()) {
        fibre.base = map_stack();
    } else {
        fibre.base = g_free_stacks.back();
        g_free_stacks.pop_back();
    }
    fibre.size = kStackSize;
    fibre.fake_stack = nullptr;
    std::memset(fibre.caught, 0, sizeof fibre.caught);
    OS_SIM_UNPOISON(fibre.base, fibre.size);
#if OS_SIM_TSAN
    if (!fibre.tsan)
        fibre.tsan = __tsan_create_fiber(0);
#endif
    char *top = static_cast<char *>(fibre.base) + kStackSize - sizeof(Start) - 64;
    top = reinterpret_cast<char *>(reinterpret_cast<std::uintptr_t>(top) & ~std::uintptr_t{15});
    auto *start = new (top) Start{&fibre, entry, arg};
    void **sp = reinterpret_cast<void **>(top);
    *--sp = nullptr;  // keeps rsp at a multiple of 16 when os_sim_first calls
    *--sp = nullptr;
    *--sp = reinterpret_cast<void *>(&os_sim_first);
    *--sp = nullptr;                           // rbp
    *--sp = nullptr;                           // rbx
    *--sp = reinterpret_cast<void *>(&first);  // r12
    *--sp = static_cast<void *>(start);        // r13
    *--sp = nullptr;                           // r14
    *--sp = nullptr;                           // r15
    fibre.sp = sp;
}

void fibre_switch(Fibre &from, Fibre &to) {
    auto *exceptions = reinterpret_cast<void *>(__cxxabiv1::__cxa_get_globals());
    std::memcpy(from.caught, exceptions, sizeof from.caught);
    std::memcpy(exceptions, to.caught, sizeof to.caught);
    g_came_from = &from;
#if OS_SIM_ASAN
    __sanitizer_start_switch_fiber(&from.fake_stack, to.base, to.size);
#endif
#if OS_SIM_TSAN
    if (!from.tsan)
        from.tsan = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(to.tsan, 0);
#endif
    os_sim_switch(&from.sp, to.sp);
    arrived(from);
}

void fibre_drop(Fibre &fibre) {
    if (fibre.base)
        g_free_stacks.push_back(fibre.base);
    fibre.base = nullptr;
    fibre.sp = nullptr;
}

}  // namespace sim
