// An error line from the child of a fork(), where a lock of the log may be held for ever
// by a thread that is not there. Exactly one of the two sources that define this is
// linked.
#pragma once

namespace orb {

// `text` without a line feed, at most 200 bytes. Takes no lock.
void LogErrorInChild(const char* text);

}  // namespace orb
