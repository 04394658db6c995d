// Configurations of KPIs, and a serializer that keeps the records as text.
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

#include "proto/kpi_kinds.h"
#include "proto/record_statistics.h"
#include "serializer/kpi_serializer.h"
#include "tests/support/hex.h"

// The statement ends the process by abort(), and in no other way, such as a sanitizer's.
#define EXPECT_ABORT(statement) EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), "")

namespace orb::test {

constexpr uint32_t kKpiId = 7;        // The id in the configuration.
constexpr uint32_t kRoutingId = 900;  // The id that the owner sets; another, to show a mix-up.

constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

// A configuration without a window: every sample closes one.
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

// A serializer that keeps what it is given as text. For one thread.
class FakeSerializer : public KPISerializer {
 public:
  FakeSerializer() : KPISerializer("FakeSerializer") {}

  // The next write is not kept and answers `result`.
  void FailNext(int result) { failure_ = result; }

  int Write(orbtr::KPIData& data, unsigned int kpiId) override {
    std::ostringstream out;
    if (data.version() != 0) out << " version " << data.version();
    ForEachRecordRow([&](const auto& row) {
      for (const auto& record : (data.*row.list)()) {
        out << Text(record.meta());
        ForEachStatistic(record, [&out](const char* name, auto value) {
          out << ' ' << name << ' ';
          std::isnan(value) ? out << "nan" : out << value;  // Without the sign of a NaN.
        });
      }
    });
    for (const auto& histogram : data.histograms()) {
      out << " buckets";
      for (const uint32_t bucket : histogram.bucket_counts()) out << ' ' << bucket;
    }
    for (const auto& blob : data.blobs()) out << " blob " << ToHex(blob.data());
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

  // One line for each record: the routing id, then the record.
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
