// The records that a session's KPIs fill in turn.
// Tested by tests/kpi/kpi_test.cpp and its neighbours.
#include "proto/kpi_data.pb.h"
#include "serializer/kpi_serializer.h"

KPISerializer::KPISerializer(const char* name)
    : name(name),
      record_(std::make_unique<orbtr::KPIData>()),
      counterRecord_(std::make_unique<orbtr::KPIData>()) {
  counterRecord_->add_counters();
}

KPISerializer::~KPISerializer() = default;

orbtr::KPIData& KPISerializer::EmptyRecord() {
  record_->Clear();
  return *record_;
}

orbtr::KPIData& KPISerializer::CounterRecord() { return *counterRecord_; }
