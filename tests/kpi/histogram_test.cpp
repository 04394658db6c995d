#include "kpi/histogram.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <limits>
#include <numeric>
#include <vector>

#include "tests/kpi/kpi_test_support.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_serializer.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_conf.h"

namespace orb::test {
namespace {

constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

class HistogramProbe : public Histogram {
 public:
  using Histogram::buckets;
  using Histogram::Histogram;
  using Histogram::nofBuckets;
};

KPICfg HistogramCfg(const std::vector<int32_t>& edges, bool underflow, bool overflow) {
  KPICfg cfg = WithSampleWindow(NumericCfg(HISTOGRAM), 100);
  HistogramConfig* layout = cfg.mutable_h_cfg();
  layout->mutable_bucket_bounds()->Add(edges.begin(), edges.end());
  layout->set_underflow_bucket(underflow);
  layout->set_overflow_bucket(overflow);
  return cfg;
}

// [count] ascending edges.
std::vector<int32_t> Edges(int count) {
  std::vector<int32_t> edges(count);
  std::iota(edges.begin(), edges.end(), 0);
  return edges;
}

TEST(HistogramTest, PutsValuesIntoBuckets) {
  struct Case {
    const char* name;
    std::vector<int32_t> edges;
    bool underflow;
    bool overflow;
    std::vector<std::pair<int32_t, uint32_t>> want;  // Value, bucket.
  };
  const Case kCases[] = {
      {"both open ends",
       {10, 20, 30},
       true,
       true,
       {{kMin, 0}, {5, 0}, {10, 0}, {11, 1}, {20, 1}, {30, 2}, {31, 3}, {kMax, 3}}},
      {"closed: outsiders count in the last",
       {10, 20, 30},
       false,
       false,
       {{5, 1}, {10, 1}, {11, 0}, {15, 0}, {20, 0}, {21, 1}, {25, 1}, {30, 1}, {35, 1}}},
      {"underflow only",
       {10, 20, 30},
       true,
       false,
       {{5, 0}, {10, 0}, {11, 1}, {21, 2}, {30, 2}, {35, 2}}},
      {"overflow only",
       {10, 20, 30},
       false,
       true,
       {{5, 2}, {10, 2}, {11, 0}, {21, 1}, {30, 1}, {31, 2}}},
      {"negative edges", {-5, 0, 5}, true, true, {{-7, 0}, {-5, 0}, {-3, 1}, {0, 1}, {6, 3}}},
      {"descending edges: the first that fits",
       {30, 20, 10},
       true,
       true,
       {{5, 0}, {25, 0}, {31, 3}}},
      {"no edges", {}, false, false, {{kMin, 0}, {0, 0}, {kMax, 0}}},
      {"no edges, both open ends", {}, true, true, {{-1, 0}, {1, 0}}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const HistogramProbe histogram(HistogramCfg(c.edges, c.underflow, c.overflow), nullptr);
    for (const auto& [value, bucket] : c.want) {
      EXPECT_EQ(histogram.findBucketId(static_cast<unsigned int>(value)), bucket) << value;
    }
  }
}

TEST(HistogramTest, BucketCountFallsBackToOne) {
  struct Case {
    int edges;
    bool underflow;
    bool overflow;
    uint32_t want;
  };
  const Case kCases[] = {
      {0, false, false, 1}, {0, true, false, 1},      {0, true, true, 1},    {1, false, false, 1},
      {1, true, true, 2},   {256, false, false, 255}, {256, true, false, 1}, {254, true, true, 255},
      {255, true, true, 1}, {300, true, true, 1},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.edges);
    HistogramProbe histogram(HistogramCfg(Edges(c.edges), c.underflow, c.overflow), nullptr);
    EXPECT_EQ(histogram.nofBuckets, c.want);
    EXPECT_EQ(histogram.buckets.size(), c.want);
    if (c.want == 1) {
      for (const int32_t value : {kMin, 0, 299, kMax}) {
        EXPECT_EQ(histogram.Aggregate(static_cast<unsigned int>(value)), 0);
      }
      EXPECT_EQ(histogram.buckets[0], 4u);
    }
  }
}

TEST(HistogramTest, EdgeLimitComesFromTheConfigurationFile) {
  EXPECT_TRUE(HistogramProbe(HistogramCfg(Edges(1024), true, true), nullptr).validCfg());
  EXPECT_EQ(KPI::Create(HistogramCfg(Edges(1025), true, true), nullptr), nullptr);
  {
    const ScopedConf conf("hist_nof_buckets_max = 3\n");
    EXPECT_TRUE(HistogramProbe(HistogramCfg(Edges(3), true, true), nullptr).validCfg());
    EXPECT_FALSE(HistogramProbe(HistogramCfg(Edges(4), false, false), nullptr).validCfg());
  }
  // Compared as signed: nothing fits below a negative limit.
  const ScopedConf conf("hist_nof_buckets_max = -1\n");
  EXPECT_FALSE(HistogramProbe(HistogramCfg({}, false, false), nullptr).validCfg());
}

TEST(HistogramTest, WritesOneCountPerBucketAndStartsAgain) {
  LogCapture log;
  FakeClock clock;
  FakeSerializer serializer;
  HistogramProbe histogram(WithSampleWindow(HistogramCfg({10, 20}, true, true), 4), &serializer);
  histogram.setKPIId(kRoutingId);
  EXPECT_EQ(histogram.Serialize(), 0);
  EXPECT_TRUE(serializer.records().empty());
  EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "orb_sdk",
                      "Histogram::Serialize(), numSamples=0, tsStart=0, tsEnd=0"))
      << log.Dump();
  EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "orb_sdk", "numSamples < 1, so skipping"));
  for (const unsigned int value : {5u, 25u, 26u, 300u, 15u}) histogram.AddSample(value);
  const auto records = serializer.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].kpi_id, kRoutingId);
  // histograms { meta { 7, 12, 12, 4 } bucket_counts 1, 0, 3 }
  EXPECT_EQ(
      records[0].bytes,
      std::string("\x22\x0f\x0a\x08\x08\x07\x10\x0c\x18\x0c\x20\x04\x12\x03\x01\x00\x03", 17));
  EXPECT_EQ(histogram.buckets, (std::vector<uint32_t>{0, 1, 0}));
  serializer.FailCall(1, -9);
  EXPECT_EQ(histogram.Serialize(), -9);
}

TEST(HistogramTest, OverflowAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  HistogramProbe histogram(HistogramCfg({10}, true, true), nullptr);
  histogram.buckets[1] = 0xFFFFFFFE;
  EXPECT_EQ(histogram.Aggregate(11), 0);
  EXPECT_ABORT(histogram.Aggregate(11));
  histogram.nofBuckets = 0;
  EXPECT_ABORT(static_cast<void>(histogram.findBucketId(1)));
}

}  // namespace
}  // namespace orb::test
