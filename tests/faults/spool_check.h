// Whether what arrived is what was logged.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/faults/load.h"

namespace orb::test {

// Wall clock, milliseconds since 1970; both ends included.
struct Outage {
  int64_t begin_ms = 0;
  int64_t end_ms = 0;
};

struct SpoolRules {
  bool two_owners = true;
  bool lossless = false;          // Phase 0 is complete, like phase 1 always.
  bool blobs_may_repeat = false;  // In another file: the client died in between.
  bool torn = false;              // Phase 0 is not looked at.
  bool numbers_may_repeat = false;
  std::vector<Outage> outages;
  uint64_t next_seqno = 0;  // The content of the client's .seq file.
};

struct SpoolReport {
  uint64_t files = 0;
  uint64_t records = 0;
  uint64_t missing_numbers = 0;
  uint64_t accepted = 0;  // Samples and blobs of phase 0.
  uint64_t decoded = 0;   // Of those, in the first owner's records; gauges left out of both.
  std::vector<std::string> failures;
};

// `json_lines` is what orbctl decode printed for the folder.
SpoolReport CheckSpool(const std::string& spool, const std::string& json_lines,
                       const LoadCounts& counts, const SpoolRules& rules);

}  // namespace orb::test
