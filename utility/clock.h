// Where the library's time comes from. Records, headers and waits ask Clock; the C
// functions below are the names under which headers know it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>

namespace orb {

// The clocks of the process, as plain functions that tests and trials may replace. A
// reading costs one relaxed load and one indirect call more than the system's clock.
// Any thread.
class Clock {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Ended = std::function<bool()>;

  struct Functions {
    Time (*steady)() = &SystemSteady;  // Monotonic; of windows and records.
    // The same clock, up to kRoughLagMax behind but cheap to read. Null: there is none.
    Time (*rough)() = nullptr;
    int64_t (*wall_seconds)() = &SystemWallSeconds;       // Since the epoch.
    uint64_t (*wall_ms)() = &SystemMs<CLOCK_REALTIME>;    // Since the epoch.
    uint64_t (*uptime_ms)() = &SystemMs<CLOCK_BOOTTIME>;  // Since boot, time in suspend included.
    // Returns after the seconds, or once ended() is true, which is asked at the start and
    // after each wake(). Null, both of them: waits take real time.
    void (*wait)(std::chrono::seconds, const Ended& ended) = nullptr;
    void (*wake)() = nullptr;
  };

  // Each takes effect at once, but not all in one step.
  static void Use(const Functions& functions) {
    steady_ = functions.steady;
    rough_ = functions.rough != nullptr ? functions.rough : functions.steady;
    wall_seconds_ = functions.wall_seconds;
    wall_ms_ = functions.wall_ms;
    uptime_ms_ = functions.uptime_ms;
    wait_ = functions.wait;
    wake_ = functions.wake;
  }
  static void UseSystem() {
    Functions system;
    system.rough = &SystemRough;
    Use(system);
  }

  // A tick of the slowest kernel. Where ticks come faster, the rest is for one that is late.
  static constexpr std::chrono::milliseconds kRoughLagMax{10};

  static Time Steady() { return steady_.load(std::memory_order_relaxed)(); }
  // True if Rough() is another clock than Steady(), and never further behind.
  static bool IsRoughUsable() {
    const auto rough = rough_.load(std::memory_order_relaxed);
    return rough == &SystemRough ? SystemTicksFast()
                                 : rough != steady_.load(std::memory_order_relaxed);
  }
  // Steady(), or up to kRoughLagMax before it.
  static Time Rough() { return rough_.load(std::memory_order_relaxed)(); }
  static int64_t WallSeconds() { return wall_seconds_.load(std::memory_order_relaxed)(); }
  static uint64_t WallMs() { return wall_ms_.load(std::memory_order_relaxed)(); }
  static uint64_t UptimeMs() { return uptime_ms_.load(std::memory_order_relaxed)(); }

  // False when the caller has to wait by real time.
  static bool Wait(std::chrono::seconds duration, const Ended& ended) {
    const auto wait = wait_.load();
    if (wait != nullptr) wait(duration, ended);
    return wait != nullptr;
  }
  // What somebody waits for may have come true.
  static void Wake() {
    if (const auto wake = wake_.load()) wake();
  }

 private:
  static Time SystemSteady() { return std::chrono::steady_clock::now(); }
  static Time SystemRough() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return Time(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
  }
  static bool SystemTicksFast() {
    static const bool fast = [] {
      timespec tick{};
      return clock_getres(CLOCK_MONOTONIC_COARSE, &tick) == 0 && tick.tv_sec == 0 &&
             std::chrono::nanoseconds(tick.tv_nsec) <= kRoughLagMax;
    }();
    return fast;
  }
  static int64_t SystemWallSeconds() { return time(nullptr); }
  template <clockid_t kClock>
  static uint64_t SystemMs() {
    timespec now{};
    clock_gettime(kClock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
  }

  static inline std::atomic<Time (*)()> steady_{&SystemSteady};
  static inline std::atomic<Time (*)()> rough_{&SystemRough};
  static inline std::atomic<int64_t (*)()> wall_seconds_{&SystemWallSeconds};
  static inline std::atomic<uint64_t (*)()> wall_ms_{&SystemMs<CLOCK_REALTIME>};
  static inline std::atomic<uint64_t (*)()> uptime_ms_{&SystemMs<CLOCK_BOOTTIME>};
  static inline std::atomic<void (*)(std::chrono::seconds, const Ended&)> wait_{nullptr};
  static inline std::atomic<void (*)()> wake_{nullptr};
};

}  // namespace orb

// Wall-clock seconds since the epoch.
int64_t curr_ts();

// Wall clock, milliseconds since the epoch.
uint64_t veskstats_real_time_ms();

// Milliseconds since boot, time in suspend included.
uint64_t veskstats_uptime_ms();

// Local time's offset from UTC in minutes, by the zone of now; 0 when local time is
// unknown. Reads TZ and sets libc's zone, as localtime() does.
int32_t veskstats_timezone_min();

// 64-bit byte reversal: host to network order on the little-endian systems
// that the library runs on, and back.
uint64_t htonll(uint64_t value);
