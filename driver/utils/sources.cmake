# driver/utils/sources.cmake: helpers that every other folder uses
# SPDX-License-Identifier: GPL-2.0-only
list(APPEND TRAK_DRIVER_SOURCES utils/string.cpp utils/bits.cpp utils/trak_utils.cpp)
