// A device's log: one datagram to the log daemon. Its locks are readers' only, which
// bionic grants whatever other readers there were.
#include "utility/child_log.h"
#include "utility/log.h"

namespace orb {

void LogErrorInChild(const char* text) { LOGE("%s", text); }

}  // namespace orb
