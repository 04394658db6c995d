# orb_test(NAME SOURCES... [LIBS...] [TIMEOUT SECONDS] [PREFIX TEXT]): one GoogleTest
# program; every test of it, under its name behind the prefix, is a ctest of its own, so that process-wide state never leaks between tests.
find_package(GTest REQUIRED)
include(GoogleTest)

function(orb_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT;PREFIX" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_PREFIX "${ARG_PREFIX}"
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()
