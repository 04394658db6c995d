// Tested by tests/integration/services_test.cpp and tests/access/.
#include "services/common/systemd_notice.h"

#include <orb_platform/liveness.h>
#include <systemd/sd-daemon.h>

#include <algorithm>

namespace orb::services {
namespace {

constexpr std::chrono::nanoseconds kCheckInterval = std::chrono::seconds(1);
// Checks in the watchdog's time: so many that an answer may take some of it.
constexpr int kChecksOfWatchdog = 8;

void Tell(const std::string& state) { static_cast<void>(sd_notify(0, state.c_str())); }

}  // namespace

SystemdNotice::SystemdNotice() : interval_(kCheckInterval) {
  uint64_t watchdog_us = 0;
  if (sd_watchdog_enabled(0, &watchdog_us) <= 0) return;
  watchdog_ = std::chrono::microseconds(watchdog_us);
  interval_ = std::min(interval_, watchdog_ / kChecksOfWatchdog);
}

void SystemdNotice::Check(const std::string& trouble) {
  const std::string status = trouble.empty() ? "Serving clients" : trouble;
  std::string state;
  if (status != status_) state = "STATUS=" + status + "\n";
  if (trouble.empty() && !ready_) state += "READY=1\n";
  status_ = status;
  ready_ = ready_ || trouble.empty();
  if (!state.empty()) Tell(state);
  if (watchdog_.count() != 0) Feed();
}

void SystemdNotice::Feed() {
  if (Clock::now() < fed_ + watchdog_ / 2) return;
  const uint64_t served = orb_platform::CallsServed();
  if (asked_ && served != served_before_) {
    Tell("WATCHDOG=1");
    fed_ = Clock::now();
    asked_ = false;
    return;
  }
  // Asked anew each time: the bus may have taken a question along.
  served_before_ = served;
  asked_ = orb_platform::PingOwnService();
}

void SystemdNotice::Stopping() { Tell("STOPPING=1"); }

}  // namespace orb::services
