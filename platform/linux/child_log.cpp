// Logs an error in a child of fork(), on standard error like all logs on Linux. It avoids
// liblog and the local time: both take locks of glibc that a fork() may leave locked.
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
