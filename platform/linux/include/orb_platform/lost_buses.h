// How often the bus went away under this process: Android's never does.
#pragma once

#include <cstdint>

namespace orb_platform {

// Grows before the deaths are reported that a lost bus brings, and not for those that
// somebody's end brings. Any thread.
uint64_t LostBuses();

}  // namespace orb_platform
