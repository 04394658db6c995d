// How large the values of a KPI may be. Beyond that a sum of its window no longer
// fits its type, and the library ends the process that logs.
#pragma once

#include <chrono>
#include <cstdint>

#include "proto/ltc_campaign.pb.h"

namespace orb::orbctl {

// From one sample to the next, where nobody says otherwise. A window of time is
// the fuller the shorter this is, a window of samples lasts the longer the longer.
inline constexpr std::chrono::nanoseconds kIntervalOfTimeWindows = std::chrono::milliseconds(100);
inline constexpr std::chrono::nanoseconds kIntervalOfSampleWindows = std::chrono::seconds(1);

struct SafeValues {
  static constexpr int64_t kNone = -1;  // Even a window of zeros does not fit.

  int64_t largest = 0;     // The greatest safe magnitude, or kNone.
  uint64_t samples = 0;    // The most that a window holds.
  const char* limit = "";  // What overflows first, for people.

  // Whether every value that a client can log is safe.
  bool any = false;
};

// For counters, gauges and histograms. `interval` is the time between two samples:
// the shortest for a window of time, the longest for a window of samples; above 0.
// The wall clock is taken to go steadily.
SafeValues SafeValuesOf(const KPICfg& cfg, std::chrono::nanoseconds interval);

}  // namespace orb::orbctl
