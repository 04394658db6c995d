// The records that a session's KPIs fill in turn.
// Tested by tests/kpi/allocation_test.cpp and its neighbours.
#include "proto/kpi_data.pb.h"
#include "serializer/kpi_serializer.h"

KPISerializer::KPISerializer(const char* name)
    : name(name),
      counterRecord_(std::make_unique<orbtr::KPIData>()),
      gaugeRecord_(std::make_unique<orbtr::KPIData>()),
      histogramRecord_(std::make_unique<orbtr::KPIData>()) {
  counterRecord_->add_counters();
  gaugeRecord_->add_gauges();
  histogramRecord_->add_histograms();
}

KPISerializer::~KPISerializer() = default;

// None of them is cleared as a whole, which would free its metadata.

orbtr::KPIData& KPISerializer::CounterRecord() { return *counterRecord_; }

orbtr::KPIData& KPISerializer::GaugeRecord() {
  orbtr::Gauge* const gauge = gaugeRecord_->mutable_gauges(0);
  gauge->clear_min();
  gauge->clear_max();
  gauge->clear_mean();
  gauge->clear_stdev();
  gauge->clear_variance();
  gauge->clear_slope();
  gauge->clear_offset();
  return *gaugeRecord_;
}

orbtr::KPIData& KPISerializer::HistogramRecord() {
  histogramRecord_->mutable_histograms(0)->clear_bucket_counts();
  return *histogramRecord_;
}
