// The time zone is read at each call: a device's zone changes while its daemons run.
// Tested by tests/serializer/telemetry_header_test.cpp.
#include "utility/clock.h"

#include "utility/byte_order.h"
#include "utility/thread_annotations.h"

namespace {

// libc has a lock of its own, which the thread sanitizer does not see. A leaf.
orb::Mutex zone_mutex;

}  // namespace

int64_t curr_ts() { return static_cast<int64_t>(orb::Clock::WallMs() / 1000); }

uint64_t veskstats_real_time_ms() { return orb::Clock::WallMs(); }

uint64_t veskstats_uptime_ms() { return orb::Clock::UptimeMs(); }

int32_t veskstats_timezone_min() {
  // localtime_r alone may stay with the zone of its first call. tzset, which localtime
  // calls as well, looks at TZ again or, without it, whether /etc/localtime has changed.
  orb::MutexLock lock(zone_mutex);
  tzset();
  const time_t now = curr_ts();
  tm local{};
  if (localtime_r(&now, &local) == nullptr) return 0;
  return static_cast<int32_t>(local.tm_gmtoff / 60);
}

uint64_t htonll(uint64_t value) { return orb::ByteSwap(value); }
