# tarn_add_tests(<target> LIBS <library>... SOURCES <file>... [TIMEOUT <seconds>] [SINGLE_THREADED])
#
# One test program of a room. Each TEST in it becomes a test of ctest. The thread sanitizer has
# nothing to find in one that is SINGLE_THREADED, and its build goes without.
find_package(GTest REQUIRED)
include(GoogleTest)

function(tarn_add_tests target)
  cmake_parse_arguments(ARG "SINGLE_THREADED" "TIMEOUT" "LIBS;SOURCES" ${ARGN})
  if(ARG_SINGLE_THREADED AND TARN_SANITIZE STREQUAL "thread")
    return()
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${target} ${ARG_SOURCES})
  target_link_libraries(${target} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  # Tests use every corner of an interface, conversions between widths included.
  target_compile_options(${target} PRIVATE -Wno-sign-conversion -Wno-conversion)
  # What is tested is optimised as the build says; the tests themselves only cost time to optimise.
  target_compile_options(${target} PRIVATE $<$<CONFIG:Debug>:-O0>)
  gtest_discover_tests(${target} DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()
