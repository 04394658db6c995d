// Stops the pool of threads that run incoming calls.
#pragma once

#include <chrono>

namespace orb_platform {

// Every pool thread finishes the call that it runs and ends, and joinThreadPool() returns.
// Later calls wait for ever; the process is expected to end. Any thread;
// async-signal-safe.
void StopThreadPool();

// Also waits until no call runs any more and every answer is sent. False when a call still
// runs at the deadline. Calls that wait for a thread never run. Do not call it from a pool
// thread or a signal handler.
bool StopThreadPoolBy(std::chrono::steady_clock::time_point deadline);

}  // namespace orb_platform
