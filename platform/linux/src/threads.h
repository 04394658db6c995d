// Threads of the platform: detached, named, and deaf to signals, which belong
// to the host's own threads.
#pragma once

#include <functional>

namespace orb_platform {

// Aborts when the system has no thread left.
void StartThread(const char* name, std::function<void()> body);

}  // namespace orb_platform
