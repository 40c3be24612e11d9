# driver/snap/sources.cmake: snapshots
# SPDX-License-Identifier: GPL-2.0-only
list(APPEND TRAK_DRIVER_SOURCES
     snap/cowbmp.cpp
     snap/routing.cpp
     snap/snap_node.cpp
     snap/trak_cowqueue_26.cpp
     snap/trak_cowthread_26.cpp)
