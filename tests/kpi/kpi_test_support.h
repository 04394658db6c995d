// What the tests of all kinds share.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "proto/ltc_campaign.pb.h"
#include "tests/support/fake_serializer.h"
#include "tests/support/hex.h"

// The statement ends the process by abort(), and not by a sanitizer's or any
// other way out.
#define EXPECT_ABORT(statement) EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), "")

namespace orb::test {

constexpr uint32_t kKpiId = 7;        // The configuration's.
constexpr uint32_t kRoutingId = 900;  // Set by the owner; differs so that a mix-up shows.

constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

// No window: every sample closes one.
inline KPICfg NumericCfg(KPISubType sub_type) {
  KPICfg cfg;
  cfg.set_kpi_id(kKpiId);
  cfg.set_type(KPI_NUMERIC);
  cfg.set_sub_type(sub_type);
  return cfg;
}

inline KPICfg WithSampleWindow(KPICfg cfg, uint32_t samples) {
  cfg.set_sample_window(samples);
  return cfg;
}

inline KPICfg WithTimeWindow(KPICfg cfg, uint32_t ms) {
  cfg.set_time_window(ms);
  return cfg;
}

inline HistogramConfig HistogramLayout(const std::vector<int32_t>& edges, bool underflow,
                                       bool overflow) {
  HistogramConfig layout;
  layout.mutable_bucket_bounds()->Add(edges.begin(), edges.end());
  layout.set_underflow_bucket(underflow);
  layout.set_overflow_bucket(overflow);
  return layout;
}

// " 7 12..20 x3": id, first and last tenth of a second, samples.
inline std::string Text(const orbtr::MetaData& meta) {
  std::ostringstream out;
  out << ' ' << meta.kpi_id() << ' ' << meta.ts_start() << ".." << meta.ts_end() << " x"
      << meta.num_samples();
  return out.str();
}

// " min -5 max 0": the statistics that are set.
inline std::string Text(const orbtr::Gauge& gauge) {
  std::ostringstream out;
  const auto add = [&out](bool set, const char* name, auto value) {
    if (std::isnan(value)) value = std::numeric_limits<decltype(value)>::quiet_NaN();  // No sign.
    if (set) out << ' ' << name << ' ' << value;
  };
  add(gauge.has_min(), "min", gauge.min());
  add(gauge.has_max(), "max", gauge.max());
  add(gauge.has_mean(), "mean", gauge.mean());
  add(gauge.has_stdev(), "stdev", gauge.stdev());
  add(gauge.has_variance(), "variance", gauge.variance());
  add(gauge.has_slope(), "slope", gauge.slope());
  add(gauge.has_offset(), "offset", gauge.offset());
  return out.str();
}

// What was written: the routing id, then the record; one a line.
inline std::string Text(const FakeSerializer& serializer) {
  std::ostringstream out;
  for (const auto& [data, bytes, routing_id] : serializer.records()) {
    out << routing_id << ':';
    if (data.version() != 0) out << " version " << data.version();
    for (const auto& counter : data.counters()) {
      out << Text(counter.meta()) << " count " << counter.count();
    }
    for (const auto& gauge : data.gauges()) out << Text(gauge.meta()) << Text(gauge);
    for (const auto& histogram : data.histograms()) {
      out << Text(histogram.meta()) << " buckets";
      for (const uint32_t count : histogram.bucket_counts()) out << ' ' << count;
    }
    for (const auto& blob : data.blobs()) {
      out << Text(blob.meta()) << " blob " << ToHex(blob.data());
    }
    out << '\n';
  }
  return out.str();
}

}  // namespace orb::test
