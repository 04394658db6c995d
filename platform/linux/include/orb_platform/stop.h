// Ends IPCThreadState::joinThreadPool() from a signal handler.
#pragma once

namespace orb_platform {

// Every pool thread finishes the call that it runs and returns. For good: the
// process is expected to end. Async-signal-safe, any thread.
void StopThreadPool();

}  // namespace orb_platform
