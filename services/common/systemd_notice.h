// What systemd hears of a service that it has started (Type=notify, WatchdogSec=).
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace orb::services {

// Says nothing to a service manager that did not ask for it. Not thread-safe.
class SystemdNotice {
 public:
  SystemdNotice();

  // How often Check wants to be called, at least.
  std::chrono::nanoseconds interval() const { return interval_; }

  // `trouble`: why the service cannot be used; empty when it can. The first time that it
  // can it is ready. Keeps the watchdog quiet as long as calls are answered: at half of
  // its time, once a call of the service to itself has gone all the way.
  void Check(const std::string& trouble);
  void Stopping();

 private:
  using Clock = std::chrono::steady_clock;
  void Feed();

  std::chrono::nanoseconds watchdog_{0};  // 0: none.
  std::chrono::nanoseconds interval_;
  Clock::time_point fed_ = Clock::now();
  bool asked_ = false;  // A call to itself is under way.
  uint64_t served_before_ = 0;
  bool ready_ = false;
  std::string status_;
};

}  // namespace orb::services
