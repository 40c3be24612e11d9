// agent/version.h: the name and version that backups carry
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#ifndef TRAK_VERSION
#define TRAK_VERSION "unknown"
#endif

namespace agent {

inline constexpr const char *tool_version = TRAK_VERSION;
inline constexpr const char *tool_name = "trak-backup " TRAK_VERSION;

}  // namespace agent
