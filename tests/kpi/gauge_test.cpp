// The statistics of one window.
#include "kpi/gauge.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/kpi/gauge_test_support.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace orb::test {
namespace {

constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

class GaugeTest : public testing::Test {
 protected:
  // A window too wide to close by itself.
  GaugeProbe Make(const GaugeConfig& selected) {
    return GaugeProbe(WithSampleWindow(GaugeCfg(selected), 1000), &serializer_);
  }
  orbtr::Gauge Summarise(const std::vector<TimedValue>& samples) {
    GaugeProbe gauge = Make(AllStatistics());
    Feed(&gauge, samples);
    EXPECT_EQ(gauge.Serialize(), 0);
    return LastGauge(serializer_);
  }

  LogCapture log_;
  FakeClock clock_;
  FakeSerializer serializer_;
};

// Worked by hand, with the divisions of sums that truncate.
TEST_F(GaugeTest, SummarisesAWindow) {
  struct Case {
    const char* name;
    std::vector<TimedValue> samples;
    int32_t min, max;
    float mean, variance, slope, offset;
  };
  const Case kCases[] = {
      {"a line", {{100, 10}, {101, 20}, {102, 30}}, 10, 30, 20, 100, 10, 0},
      // Variance 5 - 9/2 -> 5 - 4; slope -0.5 / (9/2 - 5) -> -0.5 / -1.
      {"two values", {{100, 1}, {101, 2}}, 1, 2, 1, 1, 0.5f, 0.75f},
      {"mean of 2.9",
       {{1, 2}, {2, 3}, {3, 3}, {4, 3}, {5, 3}, {6, 3}, {7, 3}, {8, 3}, {9, 3}, {10, 3}},
       // sumX 55, sumY 29, sumXY 164, sumXX 385: -4.5 / -83 (3025/10 -> 302).
       2,
       3,
       2,
       0,
       0.05421687f,
       2.6018072f},
      // Variance 61 - 121/2 -> 61 - 60; the mean -5.5 truncates toward zero.
      {"negative", {{0, -5}, {1, -6}}, -6, -5, -5, 1, -0.5f, -4.75f},
      {"before the epoch", {{-10, 4}, {-9, 4}, {-8, 4}}, 4, 4, 4, 0, 0, 4},
      {"zeros", {{100, 0}, {101, 0}}, 0, 0, 0, 0, 0, 0},
      {"extremes",
       {{100, kMin}, {101, kMax}},
       kMin,
       kMax,
       0,
       9223372032559808513.0f,
       2147483648.0f,
       -2147483648.0f * 1.5f},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const orbtr::Gauge got = Summarise(c.samples);
    EXPECT_EQ(got.min(), c.min);
    EXPECT_EQ(got.max(), c.max);
    EXPECT_EQ(got.mean(), c.mean);
    EXPECT_EQ(got.variance(), c.variance);
    EXPECT_EQ(got.stdev(), static_cast<float>(std::sqrt(static_cast<double>(c.variance))));
    EXPECT_FLOAT_EQ(got.slope(), c.slope);
    EXPECT_FLOAT_EQ(got.offset(), c.offset);
  }
}

TEST_F(GaugeTest, EqualTimesHaveNoSlope) {
  const orbtr::Gauge got = Summarise({{100, 10}, {100, 30}});
  EXPECT_TRUE(std::isnan(got.slope()));
  EXPECT_TRUE(std::isnan(got.offset()));
  EXPECT_EQ(got.mean(), 20);
}

TEST_F(GaugeTest, WritesOnlySelectedStatistics) {
  struct Case {
    const char* name;
    void (GaugeConfig::*select)(bool);
    const char* want;  // Set fields: min, maX, mEan, Stdev, Variance, sLope, Offset.
  };
  const Case kCases[] = {
      {"min", &GaugeConfig::set_report_min, "m"},
      {"max", &GaugeConfig::set_report_max, "X"},
      {"mean", &GaugeConfig::set_report_mean, "E"},
      {"stdev", &GaugeConfig::set_report_stdev, "S"},
      {"variance", &GaugeConfig::set_report_variance, "V"},
      {"ignored", &GaugeConfig::set_gauge_flag_6, ""},
      {"slope", &GaugeConfig::set_report_slope, "LO"},
      {"offset", &GaugeConfig::set_report_offset, "LO"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    GaugeConfig selected;
    (selected.*c.select)(true);
    GaugeProbe gauge = Make(selected);
    Feed(&gauge, {{100, 1}, {101, 2}});
    gauge.Serialize();
    const orbtr::Gauge got = LastGauge(serializer_);
    std::string set;
    if (got.has_min()) set += "m";
    if (got.has_max()) set += "X";
    if (got.has_mean()) set += "E";
    if (got.has_stdev()) set += "S";
    if (got.has_variance()) set += "V";
    if (got.has_slope()) set += "L";
    if (got.has_offset()) set += "O";
    EXPECT_EQ(set, c.want);
  }
}

TEST_F(GaugeTest, RecordBytes) {
  GaugeConfig selected;
  selected.set_report_min(true);
  selected.set_report_max(true);
  selected.set_report_mean(true);
  GaugeProbe gauge = Make(selected);
  Feed(&gauge, {{100, -1}, {101, 0}, {102, -5}});
  EXPECT_EQ(gauge.Serialize(), 0);
  const auto record = serializer_.records().at(0);
  EXPECT_EQ(record.kpi_id, kRoutingId);
  // gauges { meta { kpi_id 7 } min -5, in ten bytes, max 0, written although zero, mean -2 }
  const std::string want(
      "\x1a\x16\x0a\x02\x08\x07"
      "\x10\xfb\xff\xff\xff\xff\xff\xff\xff\xff\x01"
      "\x18\x00"
      "\x25\x00\x00\x00\xc0",
      24);
  EXPECT_EQ(record.bytes, want);
  // Head words and order are fixed: the first two numbers are N and the window's count.
  EXPECT_TRUE(log_.Has(ANDROID_LOG_DEBUG, "orb_sdk",
                       "Gauge::Serialize(), numSamples=3, N=1000 tsStart=0, tsEnd=0"))
      << log_.Dump();
  EXPECT_TRUE(log_.Has(ANDROID_LOG_DEBUG, "orb_sdk",
                       "Gauze: Min -5 Max 0 Samples 3 Avg -2.000000 Stdev 0.000000 b0 0.000000 "
                       "b1 0.000000"))
      << log_.Dump();
}

TEST_F(GaugeTest, FewerThanTwoSamplesWriteNothing) {
  GaugeProbe gauge = Make(AllStatistics());
  EXPECT_EQ(gauge.Serialize(), 0);
  Feed(&gauge, {{100, 5}});
  EXPECT_EQ(gauge.Serialize(), 0);
  EXPECT_TRUE(serializer_.records().empty());
  Feed(&gauge, {{101, 5}});
  serializer_.FailCall(1, -8);
  EXPECT_EQ(gauge.Serialize(), -8);
}

// A sum that no longer fits ends the process instead of lying.
TEST_F(GaugeTest, OverflowAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr int64_t kMax64 = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
  constexpr uint32_t kMaxU32 = std::numeric_limits<uint32_t>::max();
  struct Case {
    const char* name;
    bool time_based;
    void (*spoil)(GaugeProbe*);
    TimedValue sample;
  };
  const Case kCases[] = {
      {"sumX", false, [](GaugeProbe* g) { g->sumX = kMax64; }, {101, 5}},
      {"sumY", false, [](GaugeProbe* g) { g->sumY = kMax64; }, {101, 5}},
      {"sumY, negative", false, [](GaugeProbe* g) { g->sumY = kMin64; }, {101, -5}},
      {"sumXY", false, [](GaugeProbe* g) { g->sumXY = kMax64; }, {101, 5}},
      {"sumXY, negative", false, [](GaugeProbe* g) { g->sumXY = kMin64; }, {101, -5}},
      {"sumXX", false, [](GaugeProbe* g) { g->sumXX = kMax64; }, {101, 5}},
      {"sumYY", false, [](GaugeProbe* g) { g->sumYY = kMax64; }, {101, 5}},
      {"N", false, [](GaugeProbe* g) { g->N = kMax; }, {101, 5}},
      {"sampleSpan", true, [](GaugeProbe* g) { g->sampleSpan = kMax; }, {101, 5}},
      {"tsCount", false, [](GaugeProbe* g) { g->tsCount = kMaxU32; }, {101, 5}},
      {"tsIndex", false, [](GaugeProbe* g) { g->tsIndex = kMaxU32; }, {101, 5}},
      {"ts - refTs", false, [](GaugeProbe* g) { g->refTs = -2; }, {kMax64, 5}},
      {"ts - 1", false, [](GaugeProbe* g) { g->ResetAggregates(); }, {kMin64, 5}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const KPICfg cfg = GaugeCfg(AllStatistics());
    GaugeProbe gauge(c.time_based ? WithTimeWindow(cfg, 1000) : WithSampleWindow(cfg, 1000),
                     &serializer_);
    Feed(&gauge, {{100, 1}});  // The first sample clears the sums; the second adds.
    c.spoil(&gauge);
    EXPECT_ABORT(gauge.NewTimedSample(c.sample.ts, c.sample.value));
  }
  // While the statistics are computed.
  void (*const kSpoils[])(GaugeProbe*) = {
      [](GaugeProbe* g) { g->sumX = int64_t{1} << 62, g->sumY = 4; },
      [](GaugeProbe* g) { g->sumX = int64_t{1} << 32, g->sumY = 0; },
      [](GaugeProbe* g) { g->sumXX = kMin64; },
      [](GaugeProbe* g) { g->sumY = int64_t{1} << 32; },
      [](GaugeProbe* g) { g->sumYY = kMin64; },
  };
  for (const auto spoil : kSpoils) {
    GaugeProbe gauge = Make(AllStatistics());
    Feed(&gauge, {{100, 1}, {101, 3}});
    spoil(&gauge);
    EXPECT_ABORT(gauge.Serialize());
  }
}

}  // namespace
}  // namespace orb::test
