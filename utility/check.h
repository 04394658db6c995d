// Invariants that are checked in every build: what a comment would demand of a caller, or
// promise of a state, and what costs nothing to ask. Not for what comes from outside.
#pragma once

#include <android/log.h>

#include <cstdlib>

namespace orb {

// Writes one fatal line that names the condition and its place, then aborts. Takes no
// lock of the library and allocates nothing, so it works with any lock held.
// `place` is a file or a function.
[[noreturn, gnu::cold, gnu::noinline]] inline void CheckFailed(const char* condition,
                                                               const char* place, int line) {
  static_cast<void>(__android_log_print(ANDROID_LOG_FATAL, "orb_sdk", "%s:%d: check failed: %s",
                                        place, line, condition));
  std::abort();
}

}  // namespace orb

// Evaluates the condition once. Aborts, naming it, unless it is true.
#define ORB_CHECK(condition)                         \
  (__builtin_expect(static_cast<bool>(condition), 1) \
       ? static_cast<void>(0)                        \
       : ::orb::CheckFailed(#condition, __FILE_NAME__, __LINE__))
