// Tested by tests/collector/lifecycle_test.cpp.
#include "collector/stop_signal.h"

#include <chrono>

#include "utility/clock.h"

void StopSignal::Raise() {
  {
    orb::MutexLock lock(mutex_);
    raised_ = true;
  }
  cv_.NotifyAll();
  orb::Clock::Wake();
}

void StopSignal::WaitFor(int32_t seconds) {
  if (orb::Clock::Wait(std::chrono::seconds(seconds), [this] { return raised(); })) return;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  orb::MutexLock lock(mutex_);
  while (!raised_ && cv_.WaitUntil(mutex_, deadline)) {
  }
}
