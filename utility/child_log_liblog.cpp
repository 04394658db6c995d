// A device's log: one datagram to the log daemon. liblog takes its locks for reading
// only, which bionic grants even if the parent's threads held them for reading.
#include "utility/child_log.h"
#include "utility/log.h"

namespace orb {

void LogErrorInChild(const char* text) { LOGE("%s", text); }

}  // namespace orb
