// Whether what arrived is what was logged.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/faults/load.h"
#include "tests/faults/scenarios.h"
#include "tests/support/dump_lines.h"

namespace orb::test {

// What there is of one client after a run.
struct Remains {
  const Scenario& scenario;
  std::string client;  // Its name.
  const LoadCounts& counts;
  std::string spool;
  std::string records;  // What orbctl decode printed of it, as JSON; of all clients.
  DumpLines books;      // The client's, after its last session.
  uint64_t next_seqno;  // The content of its .seq file.
  uint64_t faults;
  uint64_t evicted;  // Uploads that the HAL says it removed, to make room.
};

struct SpoolReport {
  uint64_t files = 0;
  uint64_t records = 0;
  uint64_t missing_numbers = 0;
  uint64_t decoded = 0;  // Samples in the first owner's records.
  std::vector<std::string> failures;
};

SpoolReport CheckSpool(const Remains& remains);

}  // namespace orb::test
