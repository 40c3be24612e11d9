// driver/module/log.h: the system's messages
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_MODULE_LOG_H
#define TRAK_MODULE_LOG_H

#include <cstdint>

// Levels: 255 an error, always printed; 1 to 4 printed while trak_debug is at least the level; any
// other is always printed. Every format begins "%s(): " and its first argument is the function's
// name, which trak_logf supplies. Context: any once the buffer is there (the first message may sleep
// to allocate it); takes no lock, never waits. A text is cut at 2047 characters, or at 511 when
// another message is being put together at that very moment. Without memory for the buffer the
// message is dropped.
enum trak_log_level : std::int32_t {
    TRAK_LOG_MILESTONE = 1,
    TRAK_LOG_COMMAND = 2,
    TRAK_LOG_DETAIL = 3,
    TRAK_LOG_REQUEST = 4,
    TRAK_LOG_ERROR = 255,
};

extern "C" int trak_log(std::int32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// Allocates the buffer: 0 or -ENOMEM. Context: sleep.
int trak_debug_init();
// Frees it: 0. Nothing logs any more, or the next message allocates it again.
int trak_debug_destroy();

// The one buffer (null: none) and its size in bytes.
extern char *trak_debug_buffer;
extern std::int32_t trak_debug_buffer_size;

// The same under the calling function's name: trak_logf(2, "%s(): cmd=%d", cmd).
#define trak_logf(level, format, ...) trak_log(level, format, __func__ __VA_OPT__(, ) __VA_ARGS__)

#endif
