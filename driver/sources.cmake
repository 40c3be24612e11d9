# driver/sources.cmake: every source of the driver, by folder
# SPDX-License-Identifier: GPL-2.0-only
set(TRAK_DRIVER_SOURCES)
foreach(folder module control block snap fsreaders utils)
  if(EXISTS "${CMAKE_SOURCE_DIR}/driver/${folder}/sources.cmake")
    include("${CMAKE_SOURCE_DIR}/driver/${folder}/sources.cmake")
  endif()
endforeach()
list(TRANSFORM TRAK_DRIVER_SOURCES PREPEND "${CMAKE_SOURCE_DIR}/driver/")
