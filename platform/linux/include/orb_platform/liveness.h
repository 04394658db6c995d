// Tells a watchdog whether this service still answers calls.
#pragma once

#include <cstdint>

namespace orb_platform {

// How many incoming calls the pool's threads have run since the start. Any thread; never
// blocks.
uint64_t CallsServed();

// Sends a call to a service of this process through the bus, as a client does, and does
// not wait. CallsServed() grows once the bus, the reader thread and a thread of the pool
// have handled it. False without a bus, or when this process has no service on it. Any
// thread.
bool PingOwnService();

}  // namespace orb_platform
