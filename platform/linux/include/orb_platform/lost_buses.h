// Counts how often this process lost its bus. On Android that cannot happen.
#pragma once

#include <cstdint>

namespace orb_platform {

// A lost bus counts before the deaths that it causes are reported. The end of a single
// peer does not count. Any thread.
uint64_t LostBuses();

}  // namespace orb_platform
