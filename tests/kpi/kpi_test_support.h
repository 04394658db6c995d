// What the tests of all kinds share.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "proto/kpi_data.pb.h"
#include "proto/ltc_campaign.pb.h"
#include "serializer/kpi_serializer.h"
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

// A serializer that keeps what it is given as text. For one thread.
class FakeSerializer : public KPISerializer {
 public:
  FakeSerializer() : KPISerializer("FakeSerializer") {}

  // The next write is not kept and answers `result`.
  void FailNext(int result) { failure_ = result; }

  int Write(orbtr::KPIData& data, unsigned int kpiId) override {
    std::ostringstream out;
    if (data.version() != 0) out << " version " << data.version();
    for (const auto& counter : data.counters()) {
      out << Text(counter.meta()) << " count " << counter.count();
    }
    for (const auto& gauge : data.gauges()) out << Text(gauge.meta()) << Text(gauge);
    for (const auto& histogram : data.histograms()) {
      out << Text(histogram.meta()) << " buckets";
      for (const uint32_t bucket : histogram.bucket_counts()) out << ' ' << bucket;
    }
    for (const auto& blob : data.blobs()) {
      out << Text(blob.meta()) << " blob " << ToHex(blob.data());
    }
    return Keep(kpiId, out.str());
  }
  int WriteBuf(const unsigned char*, unsigned int) override { return 0; }
  int WriteBlobSegsOptimized(unsigned int kpiId, uint64_t tsStart, uint64_t tsEnd,
                             unsigned int numSamples, const kiv_blob_segment_t* segs,
                             unsigned int count) override {
    std::ostringstream out;
    out << ' ' << tsStart << ".." << tsEnd << " x" << numSamples << " segments";
    for (unsigned int i = 0; i < count; ++i) {
      out << ' ' << ToHex({reinterpret_cast<const char*>(segs[i].buf), segs[i].len});
    }
    return Keep(kpiId, out.str());
  }
  int Flush() override { return 0; }
  int Finalize() override { return 0; }

  // The routing id, then the record; one a line.
  std::string text() const {
    std::string out;
    for (const std::string& line : lines) out += line + '\n';
    return out;
  }

  std::vector<std::string> lines;

 private:
  int Keep(uint32_t routing_id, const std::string& record) {
    if (const int result = std::exchange(failure_, 0)) return result;
    lines.push_back(std::to_string(routing_id) + ':' + record);
    return 0;
  }

  int failure_ = 0;
};

}  // namespace orb::test
