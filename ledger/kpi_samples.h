// What became of the samples of one KPI before they were records. It always holds that
//
//   logged + repeated = samples that its records count + lost + open
#pragma once

#include <cstdint>

#include "ledger/loss_cause.h"

namespace orb {

struct KpiSamples {
  uint64_t logged = 0;    // All samples that the KPI was given, also those it lost.
  uint64_t repeated = 0;  // Samples that a further record of the same window counts again.
  uint64_t records = 0;   // Records handed to the serializer.
  uint64_t open = 0;      // Samples of the open window that no record counts yet.
  ByLossCause<uint64_t> lost;
};

}  // namespace orb
