// Tested by tests/serializer/telemetry_header_test.cpp.
#include "utility/clock.h"

#include <ctime>

#include "utility/byte_order.h"

namespace {

uint64_t Milliseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

}  // namespace

int64_t curr_ts() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

uint64_t veskstats_real_time_ms() { return Milliseconds(CLOCK_REALTIME); }

uint64_t veskstats_uptime_ms() { return Milliseconds(CLOCK_BOOTTIME); }

uint64_t htonll(uint64_t value) { return orb::ByteSwap(value); }
