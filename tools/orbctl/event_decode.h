// orbctl event decode FILE: event records from a binary events dump.
#pragma once

#include <ostream>
#include <string>

namespace orb::orbctl {

struct EventDecodeOptions {
  std::string file;   // As the event log has it, or as `logcat -b events -B` writes it.
  std::string names;  // File of known module and event names, one a line; may be empty.
  bool json = false;  // One object a line instead of text.
};

// Prints every event record to `out`, in order, and passes over the entries of
// others. An entry that is damaged is named on `err` with its offset, and those
// behind it are still read as long as their beginning is known. Returns 0, or
// 1 when something was damaged or a file could not be read.
int RunEventDecode(const EventDecodeOptions& options, std::ostream& out, std::ostream& err);

}  // namespace orb::orbctl
