# orb_test(NAME SOURCES... [LIBS...] [TIMEOUT SECONDS] [PREFIX TEXT]): one GoogleTest
# program; every test of it, under its name behind the prefix, is a ctest of its own, so
# that process-wide state never leaks between tests.
find_package(GTest REQUIRED)
include(GoogleTest)

# Parsing these headers took more than half of a test's compile time. They are compiled into
# a program, because g++ takes precompiled headers only of the same kind of code. It forgets
# which of them are the system's, and then reports its own false alarms about std::string.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(orb_test_warnings -Wno-array-bounds -Wno-restrict -Wno-stringop-overflow)
endif()
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/test_headers.cpp CONTENT "int main() {}\n")
add_executable(orb_test_headers ${PROJECT_BINARY_DIR}/test_headers.cpp)
target_link_libraries(orb_test_headers PRIVATE GTest::gmock)
target_precompile_headers(orb_test_headers PRIVATE
  <gmock/gmock.h> <gtest/gtest.h> <algorithm> <chrono> <filesystem> <fstream> <functional> <map>
  <memory> <optional> <string> <thread> <vector>)

function(orb_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT;PREFIX" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  target_compile_options(${name} PRIVATE ${orb_test_warnings})
  if("orb_orbctl" IN_LIST ARG_LIBS OR "orb_sim_core" IN_LIST ARG_LIBS)
    set_target_properties(${name} PROPERTIES ORB_FULL_PROTOBUF ON)
  endif()
  target_precompile_headers(${name} REUSE_FROM orb_test_headers)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_PREFIX "${ARG_PREFIX}"
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()
