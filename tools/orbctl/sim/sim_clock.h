// The time of a trial. The library's clocks, its waits and the HAL's delays all
// go by it, so that an hour's load takes what the library needs for it.
//
// By factor: the time of the machine, N times as fast. Stepped: time stands
// still while the library works, and the driver moves it to the next thing that
// happens; what sleeps is woken on the way, in order. Time 0 until Start().
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>

#include "utility/thread_annotations.h"

namespace orb::orbctl {

// Thread-safe; one for the process, since the library's clocks are functions.
class SimClock {
 public:
  using Time = std::chrono::nanoseconds;  // Since the start of the load.

  static constexpr Time kUptimeAtStart = std::chrono::seconds(100'000);

  enum class Sleeper : size_t { kHal, kRegistration, kCount };

  static SimClock& Get();

  // Time 0 is now. `factor` 0: stepped. The caller is the driver. Once.
  void Start(double factor);
  bool stepped() const { return factor_.load() == 0; }

  Time Now() const;
  // What the library takes for the time since boot: at the start always the same,
  // because the size of a record depends on it; and for the monotonic clock.
  Time Uptime() const { return kUptimeAtStart + Now(); }
  std::chrono::steady_clock::time_point Steady() const;
  // Since the epoch; at the start, the next whole second of the machine's clock, since
  // headers bear no time before the start of the process.
  Time Wall() const { return wall_start_ + Now(); }

  // Returns after `duration`, or when `ended` is true; that is asked at the start
  // and after WakeAll(), with the clock's own mutex held.
  void Sleep(Sleeper who, Time duration, const std::function<bool()>& ended) ORB_EXCLUDES(mutex_);
  void WakeAll() ORB_EXCLUDES(mutex_);
  // Sleeps of this kind, now and in all.
  size_t Asleep(Sleeper who) const ORB_EXCLUDES(mutex_);
  size_t Slept(Sleeper who) const ORB_EXCLUDES(mutex_);

  // Around a call of the driver that may wait for a thread which sleeps: then
  // the sleeper moves the clock to its own end, after a moment.
  class DriverCall {
   public:
    DriverCall() { ++Get().driver_calls_; }
    ~DriverCall() { ++Get().driver_calls_; }
    DriverCall(const DriverCall&) = delete;
    DriverCall& operator=(const DriverCall&) = delete;
  };

  // For the driver. By factor: waits. Stepped: moves the clock, wakes who is due
  // and waits until they are up; never past NextWake().
  void MoveTo(Time time) ORB_EXCLUDES(mutex_);
  std::optional<Time> NextWake() const ORB_EXCLUDES(mutex_);
  // Stepped: from now on nobody moves the clock; whoever sleeps does, at once.
  void RunFreely() ORB_EXCLUDES(mutex_);

 private:
  SimClock();
  void SleepStepped(Time until, const std::function<bool()>& ended) ORB_REQUIRES(mutex_);
  void SleepByFactor(Time until, const std::function<bool()>& ended) ORB_REQUIRES(mutex_);

  std::chrono::steady_clock::time_point RealTimeOf(Time time) const;

  std::atomic<double> factor_{0};
  std::chrono::steady_clock::time_point started_;  // Written before factor_.
  std::atomic<uint64_t> driver_calls_{0};          // Odd within one.
  const Time wall_start_;
  std::atomic<int64_t> now_ns_{0};  // Stepped only.

  mutable Mutex mutex_;
  CondVar changed_;
  bool free_ ORB_GUARDED_BY(mutex_) = false;
  std::multiset<Time> wakes_ ORB_GUARDED_BY(mutex_);
  size_t asleep_[static_cast<size_t>(Sleeper::kCount)] ORB_GUARDED_BY(mutex_) = {};
  size_t slept_[static_cast<size_t>(Sleeper::kCount)] ORB_GUARDED_BY(mutex_) = {};
};

}  // namespace orb::orbctl
