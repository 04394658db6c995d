// Threads of the platform: detached and named.
#pragma once

#include <functional>

namespace orb_platform {

// Runs body(), which must not throw, on a new thread. False when the system has no thread
// left; logs that unless `quiet`.
bool StartThread(const char* name, std::function<void()> body, bool quiet = false);

}  // namespace orb_platform
