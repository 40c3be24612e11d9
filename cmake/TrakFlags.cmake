# cmake/TrakFlags.cmake: warnings, sanitizers, compiler launcher
# SPDX-License-Identifier: GPL-2.0-only
find_program(TRAK_CCACHE ccache)
if(TRAK_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER "${TRAK_CCACHE}")
  set(CMAKE_CXX_COMPILER_LAUNCHER "${TRAK_CCACHE}")
endif()

add_compile_options(-Wall -Wextra -Werror -fno-strict-aliasing)
# Paths inside the tree only: objects are the same wherever the tree lies.
add_compile_options("-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()

if(TRAK_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -g1 -O1)
  add_link_options(-fsanitize=address,undefined)
  if(TRAK_FUZZ)
    # Millions of runs are worth the longer compilation.
    add_compile_options(-fsanitize=fuzzer-no-link -O2)
  endif()
elseif(TRAK_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -g1 -O1)
  add_link_options(-fsanitize=thread)
endif()
