// What became of one KPI's samples until they were records:
//
//   logged + repeated = samples that its records count + lost + open
#pragma once

#include <cstdint>

#include "ledger/loss_cause.h"

namespace orb {

struct KpiSamples {
  uint64_t logged = 0;    // Offered to the KPI, whatever came of them.
  uint64_t repeated = 0;  // Counted again by a further record of their window.
  uint64_t records = 0;   // Records handed to the serializer.
  uint64_t open = 0;      // In the open window, and in no record yet.
  ByLossCause<uint64_t> lost;
};

}  // namespace orb
