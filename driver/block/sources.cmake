# driver/block/sources.cmake: nodes, their locks, bitmaps and requests
# SPDX-License-Identifier: GPL-2.0-only
list(APPEND TRAK_DRIVER_SOURCES
     block/bitmap_commands.cpp
     block/bitmap_file.cpp
     block/block_ops.cpp
     block/destroy.cpp
     block/filter.cpp
     block/kdirtyd.cpp
     block/lifecycle.cpp
     block/locks.cpp
     block/orphans.cpp
     block/request.cpp
     block/table.cpp
     block/trak_aio_26.cpp)
