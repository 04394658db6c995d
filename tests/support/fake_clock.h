// The clocks that KPIs read, moved by hand. One at a time; the system's clocks
// are back when it goes.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "utility/clock.h"

namespace orb::test {

class FakeClock {
 public:
  // Monotonic time starts at 1.25 s, the wall clock at second 100.
  FakeClock() {
    SetSteady(std::chrono::milliseconds(1250));
    wall_s_ = 100;
    Clock::Functions functions;
    functions.steady = [] { return Clock::Time(std::chrono::nanoseconds(steady_ns_.load())); };
    functions.wall_seconds = [] { return wall_s_.load(); };
    Clock::Use(functions);
  }
  ~FakeClock() { Clock::UseSystem(); }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  void SetSteady(std::chrono::nanoseconds since_start) { steady_ns_ = since_start.count(); }
  void AdvanceSteady(std::chrono::nanoseconds by) { steady_ns_ += by.count(); }
  void AdvanceWall(int64_t seconds) { wall_s_ += seconds; }

 private:
  static inline std::atomic<int64_t> steady_ns_{0};
  static inline std::atomic<int64_t> wall_s_{0};
};

}  // namespace orb::test
