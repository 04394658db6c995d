// The clocks that records and headers carry.
#pragma once

#include <cstdint>

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
