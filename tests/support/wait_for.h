// Waits for a condition without fixed sleeps.
#pragma once

#include <chrono>
#include <thread>

namespace orb::test {

// Polls `condition` until it holds; false when it did not within the timeout.
template <typename Condition>
bool WaitFor(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace orb::test
