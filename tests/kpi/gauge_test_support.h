// A gauge whose state tests can see and set.
#pragma once

#include <vector>

#include "kpi/gauge.h"
#include "tests/kpi/kpi_test_support.h"
#include "tests/support/fake_serializer.h"

namespace orb::test {

struct TimedValue {
  long long ts;  // Wall-clock seconds.
  int value;
};

class GaugeProbe : public Gauge {
 public:
  GaugeProbe(const KPICfg& cfg, FakeSerializer* serializer) : Gauge(cfg, serializer) {
    setKPIId(kRoutingId);
  }
  using Gauge::avg;
  using Gauge::b0;
  using Gauge::b1;
  using Gauge::max;
  using Gauge::min;
  using Gauge::N;
  using Gauge::numSamples;
  using Gauge::refTs;
  using Gauge::sampleSpan;
  using Gauge::stdev;
  using Gauge::sumX;
  using Gauge::sumXX;
  using Gauge::sumXY;
  using Gauge::sumY;
  using Gauge::sumYY;
  using Gauge::timeSpan;
  using Gauge::tsArray;
  using Gauge::tsCount;
  using Gauge::tsIndex;
};

inline void Feed(Gauge* gauge, const std::vector<TimedValue>& samples) {
  for (const TimedValue& sample : samples) gauge->NewTimedSample(sample.ts, sample.value);
}

inline GaugeConfig AllStatistics() {
  GaugeConfig selected;
  selected.set_report_min(true);
  selected.set_report_max(true);
  selected.set_report_mean(true);
  selected.set_report_stdev(true);
  selected.set_report_variance(true);
  selected.set_report_slope(true);
  return selected;
}

inline KPICfg GaugeCfg(const GaugeConfig& selected) {
  KPICfg cfg = NumericCfg(GAUGE);
  *cfg.mutable_g_cfg() = selected;
  return cfg;
}

inline orbtr::Gauge LastGauge(const FakeSerializer& serializer) {
  const auto records = serializer.records();
  return records.empty() ? orbtr::Gauge() : records.back().data.gauges(0);
}

}  // namespace orb::test
