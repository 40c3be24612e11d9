# driver/block/sources.cmake: nodes, their locks, bitmaps and requests
# SPDX-License-Identifier: GPL-2.0-only
list(APPEND TRAK_DRIVER_SOURCES
     block/locks.cpp
     block/table.cpp)
