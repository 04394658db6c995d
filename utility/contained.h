// The edge where an exception ends. The library throws none of its own; what arrives
// here says that an allocation failed, in the C++ library or in one that we use. The
// host asked for a status, so that is what it gets.
// Tested by tests/faults/exhaustion_test.cpp.
#pragma once

#include <exception>
#include <utility>

#include "utility/log.h"

namespace orb {

// The result of body(), or `failure` and one error line when it throws. `operation` is
// for the line. A thread that is being cancelled unwinds on: that is no exception.
template <typename Result, typename Body>
Result Contained(const char* operation, Result failure, Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (const std::exception& error) {
    LOGE("%s: failed: %s", operation, error.what());
    return failure;
  }
}

// The same for what has no result. False when it threw.
template <typename Body>
bool Contained(const char* operation, Body&& body) {
  return Contained(operation, false, [&] {
    std::forward<Body>(body)();
    return true;
  });
}

}  // namespace orb
