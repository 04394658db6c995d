// The clocks that KPIs read. Tests put their own functions in place; otherwise
// a reading costs one relaxed load and one indirect call more than the clock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>

namespace orb::kpi_clock {

using SteadyNow = std::chrono::steady_clock::time_point (*)();
using WallSeconds = int64_t (*)();  // Whole seconds since the epoch.

inline std::chrono::steady_clock::time_point SystemSteadyNow() {
  return std::chrono::steady_clock::now();
}
inline int64_t SystemWallSeconds() { return time(nullptr); }

inline std::atomic<SteadyNow> steady_now{&SystemSteadyNow};
inline std::atomic<WallSeconds> wall_seconds{&SystemWallSeconds};

inline std::chrono::steady_clock::time_point Now() {
  return steady_now.load(std::memory_order_relaxed)();
}
inline int64_t Seconds() { return wall_seconds.load(std::memory_order_relaxed)(); }

}  // namespace orb::kpi_clock
