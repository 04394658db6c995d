# orb_test(NAME SOURCES... [LIBS...]): one GoogleTest program; every test of it
# is a ctest of its own, so that process-wide state never leaks between tests.
find_package(GTest REQUIRED)
include(GoogleTest)

function(orb_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()
