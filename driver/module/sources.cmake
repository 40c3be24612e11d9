# driver/module/sources.cmake: load, unload, parameters, messages
# SPDX-License-Identifier: GPL-2.0-only
list(APPEND TRAK_DRIVER_SOURCES module/log.cpp module/module.cpp module/params.cpp)
