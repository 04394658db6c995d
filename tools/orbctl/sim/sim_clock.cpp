// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/sim_clock.h"

#include <thread>

namespace orb::orbctl {
namespace {

using std::chrono::steady_clock;

// A call of the driver that takes longer waits for a sleeper.
constexpr std::chrono::milliseconds kStuck(20);

// Set for the driver: in its own calls, nobody else would move the clock.
thread_local bool is_driver = false;

}  // namespace

SimClock& SimClock::Get() {
  static auto* const clock = new SimClock();  // Never destroyed: threads outlive statics.
  return *clock;
}

SimClock::SimClock()
    : started_(steady_clock::now()),
      wall_start_(std::chrono::ceil<std::chrono::seconds>(
          std::chrono::system_clock::now().time_since_epoch())) {}

void SimClock::Start(double factor) {
  is_driver = true;
  started_ = steady_clock::now();
  factor_.store(factor);
}

SimClock::Time SimClock::Now() const {
  if (stepped()) return Time(now_ns_.load());
  const std::chrono::duration<double, std::nano> real = steady_clock::now() - started_;
  return Time(static_cast<int64_t>(real.count() * factor_.load()));
}

steady_clock::time_point SimClock::Steady() const { return steady_clock::time_point(Uptime()); }

steady_clock::time_point SimClock::RealTimeOf(Time time) const {
  return started_ + Time(static_cast<int64_t>(static_cast<double>(time.count()) / factor_.load()));
}

void SimClock::Sleep(Sleeper who, Time duration, const std::function<bool()>& ended) {
  const Time until = Now() + duration;
  const auto kind = static_cast<size_t>(who);
  MutexLock lock(mutex_);
  ++slept_[kind];
  if (stepped() && (is_driver || free_)) {
    if (!ended() && now_ns_.load() < until.count()) now_ns_.store(until.count());
    return;
  }
  ++asleep_[kind];
  const auto entry = wakes_.insert(until);
  if (stepped()) {
    SleepStepped(until, ended);
  } else {
    SleepByFactor(until, ended);
  }
  wakes_.erase(entry);
  --asleep_[kind];
  changed_.NotifyAll();
}

void SimClock::SleepStepped(Time until, const std::function<bool()>& ended) {
  uint64_t call = driver_calls_.load();
  while (!ended() && !free_ && now_ns_.load() < until.count()) {
    if (changed_.WaitUntil(mutex_, steady_clock::now() + kStuck)) continue;
    const uint64_t now_in = driver_calls_.load();
    const bool stuck = now_in % 2 == 1 && now_in == call;
    call = now_in;
    if (!stuck || until != *wakes_.begin()) continue;
    now_ns_.store(until.count());
    changed_.NotifyAll();
  }
}

void SimClock::SleepByFactor(Time until, const std::function<bool()>& ended) {
  while (!ended() && changed_.WaitUntil(mutex_, RealTimeOf(until))) {
  }
}

void SimClock::WakeAll() {
  MutexLock lock(mutex_);
  changed_.NotifyAll();
}

size_t SimClock::Asleep(Sleeper who) const {
  MutexLock lock(mutex_);
  return asleep_[static_cast<size_t>(who)];
}

size_t SimClock::Slept(Sleeper who) const {
  MutexLock lock(mutex_);
  return slept_[static_cast<size_t>(who)];
}

std::optional<SimClock::Time> SimClock::NextWake() const {
  MutexLock lock(mutex_);
  if (wakes_.empty()) return std::nullopt;
  return *wakes_.begin();
}

void SimClock::MoveTo(Time time) {
  if (!stepped()) return std::this_thread::sleep_until(RealTimeOf(time));
  MutexLock lock(mutex_);
  if (now_ns_.load() < time.count()) now_ns_.store(time.count());
  changed_.NotifyAll();
  while (!wakes_.empty() && *wakes_.begin() <= time) changed_.Wait(mutex_);
}

void SimClock::RunFreely() {
  MutexLock lock(mutex_);
  free_ = true;
  if (!wakes_.empty() && stepped() && now_ns_.load() < wakes_.rbegin()->count()) {
    now_ns_.store(wakes_.rbegin()->count());
  }
  changed_.NotifyAll();
}

}  // namespace orb::orbctl
