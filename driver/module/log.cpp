// driver/module/log.cpp: the system's messages
// SPDX-License-Identifier: GPL-2.0-only
//
// One buffer serves the whole module, and no lock stands before it: messages come from interrupt
// context and from under spin locks. Whoever formats into it first claims it with one atomic
// exchange and gives it back after the record is printed. A caller that finds it claimed (by
// another processor, or by the very code that it interrupted) doesn't wait: it formats into a
// short buffer on its own stack, so that its message is printed too, cut at short_size - 1
// characters instead of trak_debug_buffer_size - 1. Nothing is dropped, nobody waits, and no two
// callers touch the same bytes.
//
// The buffer comes and goes with the module: trak_init makes it and trak_cleanup frees it when
// nothing is left that logs.
#include "driver/module/log.h"

#include <os_embedded.h>

#include <cstdarg>
#include <cstddef>

#include "driver/module/params.h"
#include "driver/utils/atomic.h"
#include "os/log.h"
#include "os/memory.h"
#include "os/task.h"

OS_MODULE_STATE constinit char *trak_debug_buffer = nullptr;
OS_MODULE_STATE constinit std::int32_t trak_debug_buffer_size = 0;

namespace {

constexpr std::int32_t full_size = 2048;
constexpr std::int32_t short_size = 512;

// 1 while a message stands in trak_debug_buffer.
OS_MODULE_STATE constinit std::int32_t buffer_claimed = 0;

bool level_is_printed(std::int32_t level) {
    if (level < 1 || level > 4)
        return true;
    return trak_read_once(trak_debug) >= level;
}

// Formats into the buffer and prints one record; a text that lacks its newline gets one.
__attribute__((format(printf, 4, 0))) void print_record(std::int32_t level, char *buffer,
                                                        std::int32_t size, const char *format,
                                                        va_list args) {
    char prefix[16] = " int";
    const bool error = level == TRAK_LOG_ERROR;
    if (!error && !os_in_interrupt())
        os_snprintf(prefix, sizeof prefix, "%04d", os_current_pid());

    std::int32_t length = os_vsnprintf(buffer, static_cast<std::size_t>(size), format, args);
    if (length < 0)
        length = 0;
    if (length >= size)
        length = size - 1;
    buffer[length] = '\0';
    const char *end = length > 0 && buffer[length - 1] == '\n' ? "" : "\n";
    if (error)
        os_printk("<3>ERROR: %s%s", buffer, end);
    else
        os_printk("<6>%s: %s%s", prefix, buffer, end);
}

// Apart, so that the usual path doesn't pay for the buffer on the stack.
__attribute__((noinline, format(printf, 2, 0))) void
print_short_record(std::int32_t level, const char *format, va_list args) {
    char buffer[short_size];
    print_record(level, buffer, short_size, format, args);
}

}  // namespace

int trak_debug_init() {
    if (__atomic_load_n(&trak_debug_buffer, __ATOMIC_ACQUIRE) != nullptr)
        return 0;
    trak_write_once(trak_debug_buffer_size, full_size);
    auto *buffer = static_cast<char *>(os_kmalloc(full_size, OS_GFP_KERNEL));
    if (buffer == nullptr)
        return -ENOMEM;
    char *none = nullptr;
    if (!__atomic_compare_exchange_n(&trak_debug_buffer, &none, buffer, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE))
        os_kfree(buffer);  // another caller was first; its buffer serves
    return 0;
}

int trak_debug_destroy() {
    char *buffer = __atomic_exchange_n(&trak_debug_buffer, nullptr, __ATOMIC_ACQ_REL);
    if (buffer != nullptr) {
        os_kfree(buffer);
        trak_write_once(trak_debug_buffer_size, 0);
    }
    return 0;
}

extern "C" int trak_log(std::int32_t level, const char *format, ...) {
    if (__atomic_load_n(&trak_debug_buffer, __ATOMIC_ACQUIRE) == nullptr)
        (void)trak_debug_init();
    if (!level_is_printed(level))
        return 0;
    char *buffer = __atomic_load_n(&trak_debug_buffer, __ATOMIC_ACQUIRE);
    if (buffer == nullptr)
        return 0;  // no memory for it: the message is dropped

    va_list args;
    va_start(args, format);
    if (__atomic_exchange_n(&buffer_claimed, 1, __ATOMIC_ACQUIRE) == 0) {
        print_record(level, buffer, trak_read_once(trak_debug_buffer_size), format, args);
        __atomic_store_n(&buffer_claimed, 0, __ATOMIC_RELEASE);
    } else {
        print_short_record(level, format, args);
    }
    va_end(args);
    return 0;
}
