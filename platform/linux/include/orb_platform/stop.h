// Ends IPCThreadState::joinThreadPool() from a signal handler, or a service
// between two calls.
#pragma once

#include <chrono>

namespace orb_platform {

// Every pool thread finishes the call that it runs and returns. For good: the
// process is expected to end. Async-signal-safe, any thread.
void StopThreadPool();

// The same, and waits until no call runs any more and every answer is on its way;
// false when one still runs at the deadline. Calls that wait for a thread are
// never run. Not from a pool thread or a signal handler.
bool StopThreadPoolBy(std::chrono::steady_clock::time_point deadline);

}  // namespace orb_platform
