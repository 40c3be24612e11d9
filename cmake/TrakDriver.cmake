# cmake/TrakDriver.cmake: the driver's one set of sources, compiled for a platform
# SPDX-License-Identifier: GPL-2.0-only
# What a kernel module may use: no exceptions, no RTTI, no guarded statics, nothing hosted.
set(TRAK_FREESTANDING_FLAGS
    -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-asynchronous-unwind-tables
    -Wvla -Wmissing-declarations)

# trak_add_driver(PLATFORM): static library driver_PLATFORM; its embedded types come from
# os/PLATFORM/embed/os_embedded.h by include path.
function(trak_add_driver platform)
  include("${CMAKE_SOURCE_DIR}/driver/sources.cmake")
  add_library(driver_${platform} STATIC ${TRAK_DRIVER_SOURCES})
  target_compile_options(driver_${platform} PRIVATE
                         $<$<COMPILE_LANGUAGE:CXX>:${TRAK_FREESTANDING_FLAGS}>)
  if(NOT TRAK_SANITIZE)
    target_compile_options(driver_${platform} PRIVATE -Wframe-larger-than=1024)
  endif()
  target_include_directories(driver_${platform} PUBLIC "${CMAKE_SOURCE_DIR}"
                             "${CMAKE_SOURCE_DIR}/os/${platform}/embed")
endfunction()
