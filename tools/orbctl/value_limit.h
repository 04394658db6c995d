// What the operator knows of a KPI's samples: KPI=N[@INTERVAL], as the option
// --max-value and notes in campaign files have it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace orb::orbctl {

struct ValueLimit {
  int64_t value = 0;  // The greatest magnitude that is logged.
  // From one sample to the next: the shortest time for a window of time, the longest
  // for a window of samples. 0: not known.
  std::chrono::nanoseconds interval{0};
};

// KPI and N are decimal, or hexadecimal after 0x; INTERVAL is a number and ms, s, m
// or h. False with *error, one line, when the text is malformed.
bool ParseValueLimit(const std::string& text, uint32_t* kpi_id, ValueLimit* limit,
                     std::string* error);

}  // namespace orb::orbctl
