// A KPI that sums the values of a window.
#pragma once

#include <cstdint>

#include "kpi/kpi.h"

class Counter : public KPI {
 public:
  using KPI::KPI;

  // Adds the value. Aborts when the sum no longer fits 64 bits.
  int Aggregate(unsigned int value) override;
  void ResetAggregates() override;
  bool validCfg() override;
  // Writes nothing for a window without samples.
  int Serialize() override;

 protected:
  int64_t sum = 0;
};
