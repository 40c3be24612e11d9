# cmake/TrakTest.cmake: test programs and how they are named to ctest
# SPDX-License-Identifier: GPL-2.0-only
find_package(GTest REQUIRED)
include(GoogleTest)

# trak_add_test(NAME SOURCES... [LIBS...] [LABEL label] [TIMEOUT seconds])
#   one GoogleTest program NAME; each of its tests is a ctest entry of its own, labelled LABEL
#   (unit, contract, scenario, system). Sources are joined into few compilations.
function(trak_add_test name)
  cmake_parse_arguments(T "" "LABEL;TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  if(NOT T_LABEL)
    set(T_LABEL unit)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest_main)
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_MODE PRE_TEST
                       DISCOVERY_TIMEOUT 120
                       PROPERTIES LABELS "${T_LABEL}" TIMEOUT ${T_TIMEOUT})
endfunction()
