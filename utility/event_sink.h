// Event records go to the platform's event log, or to a file in its place.
// Exactly one of the two sources that define this is linked.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orb {

// Appends one entry, a list of [count] words, under `tag`. Any thread. A log
// that takes nothing loses the entry; the sink says so in the text log.
void WriteEventList(uint32_t tag, const int32_t* words, size_t count);

}  // namespace orb
