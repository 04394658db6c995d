// Tested by tests/kpi/kpi_test.cpp.
#include "kpi/counter.h"

#include "proto/kpi_kinds.h"
#include "serializer/kpi_serializer.h"
#include "utility/checked.h"
#include "utility/log.h"

int Counter::Aggregate(unsigned int value) {
  sum = orb::CheckedAdd<int64_t>(sum, value);
  return 0;
}

void Counter::ResetAggregates() { sum = 0; }

bool Counter::validCfg() { return true; }

int Counter::Serialize() {
  LOGI("Counter::Serialize(), numSamples=%d, tsStart=%ld, tsEnd=%ld", static_cast<int>(numSamples),
       Nanoseconds(tsStart), Nanoseconds(tsEnd));
  if (numSamples == 0) {
    LOGI("numSamples < 1, so skipping");
    return 0;
  }
  orbtr::KPIData& data = serializer->EmptyRecord(orb::KpiKind::kCounter);
  orbtr::Counter* counter = data.mutable_counters(0);
  fillMeta(counter->mutable_meta());
  counter->set_count(static_cast<uint64_t>(sum));
  return WriteWindow(data);
}
