// Whether a service still answers: for whatever restarts one that hangs.
#pragma once

#include <cstdint>

namespace orb_platform {

// Calls in that have been carried out by a thread of the pool, since the start. Any
// thread, never blocks.
uint64_t CallsServed();

// Sends a call to a service of this process through the bus, like any client's: once
// the bus, the reading thread and a thread of the pool have done their part CallsServed()
// is greater. Does not wait for that. False without a bus or without a service on it.
// Any thread.
bool PingOwnService();

}  // namespace orb_platform
