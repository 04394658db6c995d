// The log of a Linux system is standard error. liblog takes a lock of glibc's that a
// fork() in the wrong moment leaves closed even to readers, and the local time takes
// another: so this line has neither, and goes past it.
// Tested by tests/collector/fork_test.cpp.
#include "utility/child_log.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "utility/log.h"
#include "utility/quiet_write.h"

namespace orb {

void LogErrorInChild(const char* text) {
  if (!LOG_ENABLED(ANDROID_LOG_ERROR)) return;
  char line[256];
  const int length =
      snprintf(line, sizeof line, "%s E %d %s\n", ORB_LOG_TAG, static_cast<int>(getpid()), text);
  if (length > 0) {
    LineOffer(STDERR_FILENO).Add({line, std::min(static_cast<size_t>(length), sizeof line - 1)});
  }
}

}  // namespace orb
