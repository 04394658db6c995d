// What the library gets from a trial instead of from the machine: time, and a disk that
// may be full.
#pragma once

#include "utility/clock.h"

namespace orb::orbctl {

// The clocks and waits of SimClock.
Clock::Functions TrialTime();

// From now on the library's data files grow no further than to the end of their last
// block, as on a disk whose last free block is taken, so that a record may be torn; or
// there is room again. The client's sequence file is rewritten in place, for which a full
// disk has room.
void FillDisk(bool full);

}  // namespace orb::orbctl
