# driver/snap/sources.cmake: snapshots
# SPDX-License-Identifier: GPL-2.0-only
list(APPEND TRAK_DRIVER_SOURCES
     snap/cow_copy.cpp
     snap/cow_read.cpp
     snap/cow_write.cpp
     snap/cowbmp.cpp
     snap/routing.cpp
     snap/snap_create.cpp
     snap/snap_list.cpp
     snap/snap_resume.cpp
     snap/snap_start.cpp
     snap/snap_stop.cpp
     snap/trak_cowqueue_26.cpp
     snap/trak_cowthread_26.cpp)
