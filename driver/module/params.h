// driver/module/params.h: the module's parameters
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_MODULE_PARAMS_H
#define TRAK_MODULE_PARAMS_H

#include <cstdint>

extern "C" {
// Plain 32-bit integers, set before load by the platform; the majors are written back when 0 asked
// for a dynamic one. trak_debug may change at any time (use trak_read_once / trak_write_once).
extern std::int32_t trak_chr_major;      // default 100
extern std::int32_t trak_debug;          // default 1
extern std::int32_t trak_blk_major;      // default 100
extern std::int32_t trak_max_blk_minor;  // default 255; compared as unsigned
}

// True for a minor that the node table has room for.
inline bool trak_minor_in_range(std::uint32_t minor) {
    return minor <= static_cast<std::uint32_t>(trak_max_blk_minor);
}

#endif
