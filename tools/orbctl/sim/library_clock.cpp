// The library's clocks and waits in the tool: they go by the time of the trial.
// Stands in for utility/clock.cpp and collector/stop_signal.cpp.
// Tested by tests/orbctl/sim_test.cpp.
#include <chrono>

#include "collector/stop_signal.h"
#include "tools/orbctl/sim/sim_clock.h"
#include "utility/byte_order.h"
#include "utility/clock.h"

using orb::orbctl::SimClock;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

int64_t curr_ts() { return duration_cast<seconds>(SimClock::Get().Wall()).count(); }

uint64_t veskstats_real_time_ms() {
  return static_cast<uint64_t>(duration_cast<milliseconds>(SimClock::Get().Wall()).count());
}

uint64_t veskstats_uptime_ms() {
  return static_cast<uint64_t>(duration_cast<milliseconds>(SimClock::Get().Uptime()).count());
}

uint64_t htonll(uint64_t value) { return orb::ByteSwap(value); }

void StopSignal::Raise() {
  {
    orb::MutexLock lock(mutex_);
    raised_ = true;
  }
  SimClock::Get().WakeAll();
}

void StopSignal::WaitFor(int32_t wait_sec) {
  SimClock::Get().Sleep(SimClock::Sleeper::kRegistration, seconds(wait_sec),
                        [this] { return raised(); });
}
