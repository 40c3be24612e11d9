// driver/module/log.h: the system's messages
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_MODULE_LOG_H
#define TRAK_MODULE_LOG_H

#include <cstdint>

// Levels: 255 an error, always printed; 1 to 4 printed while trak_debug is at least the level; any
// other is always printed. Every format begins "%s(): " and its first argument is the function's
// name, which trak_logf supplies. Context: any; takes no lock. One buffer serves all callers, so
// that messages logged at the same time may mix.
enum trak_log_level : std::int32_t {
    TRAK_LOG_MILESTONE = 1,
    TRAK_LOG_COMMAND = 2,
    TRAK_LOG_DETAIL = 3,
    TRAK_LOG_REQUEST = 4,
    TRAK_LOG_ERROR = 255,
};

extern "C" int trak_log(std::int32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// Allocates the buffer: 0 or -ENOMEM. Frees it: 0.
int trak_debug_init();
int trak_debug_destroy();

// The same under the calling function's name: trak_logf(2, "%s(): cmd=%d", cmd).
#define trak_logf(level, format, ...) trak_log(level, format, __func__ __VA_OPT__(, ) __VA_ARGS__)

#endif
