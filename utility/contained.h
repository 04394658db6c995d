// Turns an exception into a status. The library throws none of its own: an exception
// says that an allocation failed, in the C++ library or in another one that we use, and
// the host's call must still return its status.
// Tested by tests/faults/exhaustion_test.cpp.
#pragma once

#include <exception>
#include <utility>

#include "utility/log.h"

namespace orb {

// The result of body(), or `failure` and one error line when it throws. `operation` is
// for the line. The unwinding of a thread that is cancelled passes through.
template <typename Result, typename Body>
Result Contained(const char* operation, Result failure, Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (const std::exception& error) {
    LOGE("%s: failed: %s", operation, error.what());
    return failure;
  }
}

// Like the one above, for a body without a result. False when it threw.
template <typename Body>
bool Contained(const char* operation, Body&& body) {
  return Contained(operation, false, [&] {
    std::forward<Body>(body)();
    return true;
  });
}

}  // namespace orb
