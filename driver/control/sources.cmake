# driver/control/sources.cmake: control device, information commands, status tree
# SPDX-License-Identifier: GPL-2.0-only
list(APPEND TRAK_DRIVER_SOURCES
     control/char.cpp
     control/info.cpp
     control/proc.cpp
     control/proc_fields.cpp)
