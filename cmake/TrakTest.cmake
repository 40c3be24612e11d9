# cmake/TrakTest.cmake: test programs, how they are named to ctest, and which sanitizer runs which
# SPDX-License-Identifier: GPL-2.0-only
find_package(GTest REQUIRED)
find_package(Python3 REQUIRED COMPONENTS Interpreter)
include(GoogleTest)

# tests_all, tests_address, tests_thread: every test program; those that a sanitizer preset is for.
add_custom_target(tests_all)
add_custom_target(tests_address)
add_custom_target(tests_thread)

# The main() of every GoogleTest program: see tests/support/test_main.cpp.
add_library(trak_test_main STATIC "${CMAKE_SOURCE_DIR}/tests/support/test_main.cpp")
target_link_libraries(trak_test_main PUBLIC GTest::gtest)

# trak_add_test(NAME SOURCES... [LIBS...] [LABEL label] [TIMEOUT seconds]
#               [SANITIZERS address thread] [NO_UNITY] [OPTIMIZE] [SERIAL])
#   one GoogleTest program NAME; each of its tests is a ctest entry, named NAME.SUITE.TEST and
#   labelled LABEL (unit, contract, scenario, stress, system).
#   SANITIZERS  the presets that build and run it besides dev. Unit and scenario programs that name
#               none go to `address`; SANITIZERS none keeps a program out of both.
#   TIMEOUT     seconds for one test, on a machine many times slower than yours (300). Shortly
#               before it the program prints every thread's stack and ends.
#   SERIAL      no other test runs beside it.
#   Sources are joined into few compilations (two files of one program can't both define a helper
#   of the same name) and compiled without optimisation, which costs a ninth of the compile time;
#   what they exercise is optimised all the same. NO_UNITY and OPTIMIZE take that back.
#   A test of the suite Inner is not listed: other tests of the program run it in a process of its
#   own.
function(trak_add_test name)
  cmake_parse_arguments(T "NO_UNITY;OPTIMIZE;SERIAL" "LABEL;TIMEOUT" "SOURCES;LIBS;SANITIZERS"
                        ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  if(NOT T_LABEL)
    set(T_LABEL unit)
  endif()
  if(NOT T_SANITIZERS AND T_LABEL MATCHES "^(unit|scenario)$")
    set(T_SANITIZERS address)
  endif()
  add_executable(${name} ${T_SOURCES} ${T_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${T_LIBS} trak_test_main)
  if(NOT T_NO_UNITY)
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
  endif()
  if(T_OPTIMIZE OR T_LABEL STREQUAL "scenario")
    target_compile_options(${name} PRIVATE -O1 -g1)
  else()
    target_compile_options(${name} PRIVATE -O0 -g1)
  endif()
  trak_test_belongs(${name} wanted ${T_SANITIZERS})
  if(NOT wanted)
    set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
    return()
  endif()
  math(EXPR watch "${T_TIMEOUT} - ${T_TIMEOUT} / 10")
  set(more)
  if(T_SERIAL OR T_LABEL STREQUAL "system")
    set(more RUN_SERIAL ON)
  endif()
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_MODE PRE_TEST
                       DISCOVERY_TIMEOUT 120 TEST_FILTER "-Inner.*"
                       PROPERTIES LABELS "${T_LABEL}" TIMEOUT ${T_TIMEOUT}
                       ENVIRONMENT "TRAK_TEST_WATCH=${watch}" ${more})
endfunction()

# trak_add_command_test(NAME COMMAND words... [DEPENDS targets...] [LABEL label] [TIMEOUT seconds]
#                       [SANITIZERS address thread])
#   one ctest entry that runs a command (a system test in Python, a script); its exit code 77 means
#   that it cannot run here and has said why. Such tests run alone, in the dev preset and in those
#   that SANITIZERS names.
#   TRAK_BIN_DIR in its environment is where the built programs are.
function(trak_add_command_test name)
  cmake_parse_arguments(T "" "LABEL;TIMEOUT" "COMMAND;DEPENDS;SANITIZERS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 600)
  endif()
  if(NOT T_LABEL)
    set(T_LABEL system)
  endif()
  if(TRAK_SANITIZE AND NOT TRAK_SANITIZE IN_LIST T_SANITIZERS)
    return()
  endif()
  if(T_DEPENDS)
    add_dependencies(tests_all ${T_DEPENDS})
    foreach(sanitizer ${T_SANITIZERS})
      add_dependencies(tests_${sanitizer} ${T_DEPENDS})
    endforeach()
  endif()
  add_test(NAME ${name} COMMAND ${T_COMMAND} WORKING_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}")
  set_tests_properties(${name} PROPERTIES LABELS "${T_LABEL}" TIMEOUT ${T_TIMEOUT}
                       SKIP_RETURN_CODE 77 ENVIRONMENT
                       "TRAK_BIN_DIR=${TRAK_BIN_DIR};PYTHONDONTWRITEBYTECODE=1")
  if(T_LABEL MATCHES "^(system|demo)$")
    set_tests_properties(${name} PROPERTIES RUN_SERIAL ON)
  endif()
endfunction()

# trak_add_fuzzer(NAME SOURCES... [LIBS...] [PLAIN...]): fuzz_NAME, a libFuzzer program of the fuzz
#   preset. PLAIN sources are the test's own: neither the fuzzer nor a sanitizer looks at them.
function(trak_add_fuzzer name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;PLAIN" ${ARGN})
  if(NOT TRAK_FUZZ)
    return()
  endif()
  add_executable(fuzz_${name} ${T_SOURCES})
  target_link_libraries(fuzz_${name} PRIVATE ${T_LIBS})
  if(T_PLAIN)
    add_library(fuzz_${name}_plain OBJECT ${T_PLAIN})
    target_link_libraries(fuzz_${name}_plain PRIVATE ${T_LIBS})
    target_compile_options(fuzz_${name}_plain PRIVATE
                           -fno-sanitize=fuzzer-no-link,address,undefined)
    target_link_libraries(fuzz_${name} PRIVATE fuzz_${name}_plain)
  endif()
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
endfunction()

# Adds NAME to the tests_* targets and sets RESULT to whether this preset runs it.
function(trak_test_belongs name result)
  add_dependencies(tests_all ${name})
  foreach(sanitizer ${ARGN})
    if(NOT sanitizer MATCHES "^(address|thread|none)$")
      message(FATAL_ERROR "${name}: no sanitizer is called ${sanitizer}")
    endif()
    if(NOT sanitizer STREQUAL "none")
      add_dependencies(tests_${sanitizer} ${name})
    endif()
  endforeach()
  if(NOT TRAK_SANITIZE OR TRAK_SANITIZE IN_LIST ARGN)
    set(${result} ON PARENT_SCOPE)
  else()
    set(${result} OFF PARENT_SCOPE)
  endif()
endfunction()
