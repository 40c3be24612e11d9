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
  if(TRAK_FUZZ)
    # The fuzz programs know the commands and the values that matter; tracing the comparisons of the
    # loops over bits, buckets and pages would cost more than all else.
    target_compile_options(driver_${platform} PRIVATE -fno-sanitize-coverage=trace-cmp
                           "-fsanitize-ignorelist=${CMAKE_SOURCE_DIR}/tests/fuzz/spared.txt"
                           "-fsanitize-coverage-ignorelist=${CMAKE_SOURCE_DIR}/tests/fuzz/spared.txt")
  endif()
  target_include_directories(driver_${platform} PUBLIC "${CMAKE_SOURCE_DIR}"
                             "${CMAKE_SOURCE_DIR}/os/${platform}/embed")
endfunction()

# driver_kernelflags: the same sources as a kernel module compiles them (x86-64, 2.6.32 and later).
# Nothing links it: `run lint` builds it, and looks at its undefined symbols and its sections.
# -fno-stack-protector leaves the choice to the module's own build; the rest is what the kernel's
# makefiles pass.
function(trak_add_driver_kernelflags)
  include("${CMAKE_SOURCE_DIR}/driver/sources.cmake")
  if(TRAK_SANITIZE OR NOT TRAK_DRIVER_SOURCES
     OR NOT EXISTS "${CMAKE_SOURCE_DIR}/os/user/embed/os_embedded.h"
     OR NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64)$")
    return()
  endif()
  add_library(driver_kernelflags STATIC EXCLUDE_FROM_ALL ${TRAK_DRIVER_SOURCES})
  set_target_properties(driver_kernelflags PROPERTIES POSITION_INDEPENDENT_CODE OFF)
  target_compile_options(driver_kernelflags PRIVATE ${TRAK_FREESTANDING_FLAGS}
      -O2 -g0 -fno-pic -fno-pie -mcmodel=kernel -mno-red-zone -mno-mmx -mno-sse -mno-sse2
      -mno-3dnow -mno-avx -mno-80387 -msoft-float -fno-stack-protector -fno-strict-aliasing
      -fno-common -fno-delete-null-pointer-checks -fcf-protection=none -Wframe-larger-than=1024)
  target_include_directories(driver_kernelflags PRIVATE "${CMAKE_SOURCE_DIR}"
                             "${CMAKE_SOURCE_DIR}/os/user/embed")
endfunction()
