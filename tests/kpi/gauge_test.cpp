// The statistics of one window; the gauge's own window, its seed, and how it
// meets the base window.
#include "kpi/gauge.h"

#include <algorithm>
#include <vector>

#include "tests/kpi/kpi_test_support.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace orb::test {
namespace {

constexpr int64_t kMax64 = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
constexpr uint32_t kMaxU32 = std::numeric_limits<uint32_t>::max();

struct TimedValue {
  long long ts = 0;  // Wall-clock seconds.
  int value = 0;
};

class GaugeProbe : public Gauge {
 public:
  GaugeProbe(const KPICfg& cfg, FakeSerializer* serializer) : Gauge(cfg, serializer) {
    setKPIId(kRoutingId);
  }
  void Feed(const std::vector<TimedValue>& samples) {
    for (const TimedValue& sample : samples) NewTimedSample(sample.ts, sample.value);
  }
  using Gauge::N;
  using Gauge::refTs;
  using Gauge::sampleSpan;
  using Gauge::sumX;
  using Gauge::sumXX;
  using Gauge::sumXY;
  using Gauge::sumY;
  using Gauge::sumYY;
  using Gauge::tsArray;
  using Gauge::tsCount;
  using Gauge::tsIndex;
};

KPICfg GaugeCfg() {
  KPICfg cfg = NumericCfg(GAUGE);
  for (const auto select : {&GaugeConfig::set_report_min, &GaugeConfig::set_report_max,
                            &GaugeConfig::set_report_mean, &GaugeConfig::set_report_stdev,
                            &GaugeConfig::set_report_variance, &GaugeConfig::set_report_slope}) {
    (cfg.mutable_g_cfg()->*select)(true);
  }
  return cfg;
}

class GaugeTest : public testing::Test {
 protected:
  GaugeProbe SampleBased(uint32_t samples) {
    return GaugeProbe(WithSampleWindow(GaugeCfg(), samples), &serializer_);
  }
  GaugeProbe TimeBased(uint32_t limit) {
    return GaugeProbe(WithTimeWindow(GaugeCfg(), limit), &serializer_);
  }
  size_t RecordCount() { return serializer_.lines.size(); }
  std::string LastStatistics() {
    const std::string line = RecordCount() == 0 ? "" : serializer_.lines.back();
    return line.substr(std::min(line.size(), std::string("900: 7 0..0 x0").size()));
  }

  LogCapture log_;
  FakeClock clock_;
  FakeSerializer serializer_;
};

// Worked by hand, with the divisions of sums that truncate.
TEST_F(GaugeTest, SummarisesAWindow) {
  const struct {
    const char* name;
    std::vector<TimedValue> samples;
    const char* want;
  } cases[] = {
      {"a line",
       {{100, 10}, {101, 20}, {102, 30}},
       " min 10 max 30 mean 20 stdev 10 variance 100 slope 10 offset 0"},
      // Variance 5 - 9/2 -> 5 - 4; slope -0.5 / (9/2 - 5) -> -0.5 / -1.
      {"two values",
       {{100, 1}, {101, 2}},
       " min 1 max 2 mean 1 stdev 1 variance 1 slope 0.5 offset 0.75"},
      // sumX 55, sumY 29, sumXY 164, sumXX 385: -4.5 / -83 (3025/10 -> 302).
      {"mean of 2.9",
       {{1, 2}, {2, 3}, {3, 3}, {4, 3}, {5, 3}, {6, 3}, {7, 3}, {8, 3}, {9, 3}, {10, 3}},
       " min 2 max 3 mean 2 stdev 0 variance 0 slope 0.0542169 offset 2.60181"},
      // Variance 61 - 121/2 -> 61 - 60; the mean -5.5 truncates toward zero.
      {"negative",
       {{0, -5}, {1, -6}},
       " min -6 max -5 mean -5 stdev 1 variance 1 slope -0.5 offset -4.75"},
      {"before the epoch",
       {{-10, 4}, {-9, 4}, {-8, 4}},
       " min 4 max 4 mean 4 stdev 0 variance 0 slope -0 offset 4"},
      {"extremes",
       {{100, kMin}, {101, kMax}},
       " min -2147483648 max 2147483647 mean 0 stdev 3.037e+09 variance 9.22337e+18"
       " slope 2.14748e+09 offset -3.22123e+09"},
      {"equal times have no slope",
       {{100, 10}, {100, 30}},
       " min 10 max 30 mean 20 stdev 14.1421 variance 200 slope nan offset nan"},
  };
  for (const auto& c : cases) {
    GaugeProbe gauge = SampleBased(1000);
    gauge.Feed(c.samples);
    EXPECT_EQ(gauge.Serialize(), 0);
    EXPECT_EQ(LastStatistics(), c.want) << c.name;
  }
}

// The running mean is a float: docs/campaigns.md gives this example.
TEST_F(GaugeTest, MeanDriftsWithinItsBound) {
  GaugeProbe gauge = SampleBased(20'000);
  for (int i = 0; i < 7200; ++i) gauge.NewTimedSample(100 + i / 1000, 300'000);
  gauge.Serialize();
  const std::string text = LastStatistics();  // " min A max B mean C ..."
  EXPECT_NEAR(std::stof(text.substr(text.find(" mean ") + 6)), 300'000, 9e-8 * 7200 * 300'000);
}

TEST_F(GaugeTest, WritesOnlySelectedStatistics) {
  const struct {
    void (GaugeConfig::*select)(bool);
    const char* want;
  } cases[] = {
      {&GaugeConfig::set_report_min, " min 0"},
      {&GaugeConfig::set_report_max, " max 2"},
      {&GaugeConfig::set_report_mean, " mean 1"},
      {&GaugeConfig::set_report_stdev, " stdev 1.41421"},
      {&GaugeConfig::set_report_variance, " variance 2"},
      {&GaugeConfig::set_gauge_flag_6, ""},
      {&GaugeConfig::set_report_slope, " slope 1 offset -0.5"},
      {&GaugeConfig::set_report_offset, " slope 1 offset -0.5"},
  };
  for (const auto& c : cases) {
    KPICfg cfg = WithSampleWindow(NumericCfg(GAUGE), 1000);
    (cfg.mutable_g_cfg()->*c.select)(true);
    GaugeProbe gauge(cfg, &serializer_);
    gauge.Feed({{100, 0}, {101, 2}});
    gauge.Serialize();
    EXPECT_EQ(LastStatistics(), c.want);
  }
}

TEST_F(GaugeTest, FewerThanTwoSamplesWriteNothing) {
  GaugeProbe gauge = SampleBased(1000);
  gauge.Feed({{100, -5}});
  EXPECT_EQ(gauge.Serialize(), 0);
  EXPECT_EQ(serializer_.text(), "");
  gauge.Feed({{101, -1}});
  EXPECT_EQ(gauge.Serialize(), 0);
  // The first two numbers are N and the count of the window.
  EXPECT_EQ(log_.Dump(),
            "3 orb_sdk: Gauge::Serialize(), numSamples=1, N=1000 tsStart=0, tsEnd=0\n"
            "3 orb_sdk: Gauge::Serialize(), numSamples=2, N=1000 tsStart=0, tsEnd=0\n"
            "3 orb_sdk: Gauze: Min -5 Max -1 Samples 2 Avg -3.000000 Stdev 2.828427 "
            "b0 -6.000000 b1 2.000000\n");
}

// A sum that no longer fits ends the process instead of lying.
TEST_F(GaugeTest, OverflowAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct {
    const char* name;
    void (*spoil)(GaugeProbe*);
    TimedValue sample = {101, 5};  // Without a value: the statistics overflow instead.
  } cases[] = {
      {"sumX", [](GaugeProbe* g) { g->sumX = kMax64; }},
      {"sumY", [](GaugeProbe* g) { g->sumY = kMax64; }},
      {"sumY, negative", [](GaugeProbe* g) { g->sumY = kMin64; }, {101, -5}},
      {"sumXY", [](GaugeProbe* g) { g->sumXY = kMax64; }},
      {"sumXX", [](GaugeProbe* g) { g->sumXX = kMax64; }},
      {"sumYY", [](GaugeProbe* g) { g->sumYY = kMax64; }},
      {"N", [](GaugeProbe* g) { g->N = kMax; }},
      {"sampleSpan", [](GaugeProbe* g) { g->sampleSpan = kMax; }},
      {"tsCount", [](GaugeProbe* g) { g->tsCount = kMaxU32; }},
      {"tsIndex", [](GaugeProbe* g) { g->tsIndex = kMaxU32; }},
      {"ts - refTs", [](GaugeProbe* g) { g->refTs = -2; }, {kMax64, 5}},
      {"ts - 1", [](GaugeProbe* g) { g->ResetAggregates(); }, {kMin64, 5}},
      {"sumX * sumY", [](GaugeProbe* g) { g->sumX = int64_t{1} << 62, g->sumY = 4; }, {}},
      {"sumX * sumX", [](GaugeProbe* g) { g->sumX = int64_t{1} << 32, g->sumY = 0; }, {}},
      {"- sumXX", [](GaugeProbe* g) { g->sumXX = kMin64; }, {}},
      {"sumY * sumY", [](GaugeProbe* g) { g->sumY = int64_t{1} << 32; }, {}},
      {"sumYY -", [](GaugeProbe* g) { g->sumYY = kMin64; }, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    GaugeProbe gauge = TimeBased(1000);
    gauge.Feed({{100, 1}});  // The first sample clears the sums; the second adds.
    if (c.sample.ts == 0) gauge.Feed({{101, 3}});
    c.spoil(&gauge);
    EXPECT_ABORT(c.sample.ts == 0 ? void(gauge.Serialize()) : gauge.Feed({c.sample}));
  }
}

using GaugeWindowTest = GaugeTest;

TEST_F(GaugeWindowTest, ClosesOneSampleBeyondTheCountAndSeedsTheNext) {
  GaugeProbe gauge = SampleBased(3);
  gauge.Feed({{100, 10}, {101, 20}, {102, 30}});
  EXPECT_EQ(RecordCount(), 0u);
  testing::internal::CaptureStdout();
  gauge.Feed({{103, 40}});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            " Index: 0  of 4 SlopeBased 0 Min 10 Max 40 Avg 25\n"
            " Index: 1  of 4 SlopeBased 10 Min 10 Max 40 Avg 25\n"
            " Index: 2  of 4 SlopeBased 20 Min 10 Max 40 Avg 25\n");
  EXPECT_EQ(gauge.tsIndex, 0u);
  // The closing sample counts again, at offset 0.
  gauge.Feed({{104, 50}, {105, 60}, {106, 70}});
  EXPECT_EQ(serializer_.text(),
            "900: 7 0..0 x0 min 10 max 40 mean 25 stdev 12.8841 variance 166 slope 10 offset 0\n"
            "900: 7 0..0 x0 min 40 max 70 mean 55 stdev 12.8841 variance 166 slope 10 offset 40\n");
}

TEST_F(GaugeWindowTest, TimeLimitIsComparedWithSeconds) {
  GaugeProbe gauge = TimeBased(2);
  gauge.Feed({{100, 1}, {101, 2}, {101, 3}});
  EXPECT_EQ(RecordCount(), 0u);
  gauge.Feed({{102, 4}});
  EXPECT_EQ(RecordCount(), 1u);
  // The seed lies at offset 0, so the next window is a second longer.
  gauge.Feed({{103, 5}, {104, 6}});
  EXPECT_EQ(RecordCount(), 1u);
  gauge.Feed({{105, 7}});
  EXPECT_EQ(RecordCount(), 2u);
}

// Samples, and how many records and how many samples remain after the last.
TEST_F(GaugeWindowTest, AClockThatDoesNotAdvanceClosesTheWindow) {
  const struct {
    const char* name;
    std::vector<TimedValue> samples;
    size_t want_records;
    int32_t want_n;
    long long want_ref;
  } cases[] = {
      {"second of a fresh window's first", {{100, 1}, {100, 2}}, 0, 2, 99},
      {"step back", {{100, 1}, {101, 2}, {90, 3}}, 1, 1, 90},
      {"back to the reference second", {{100, 1}, {101, 2}, {99, 3}}, 1, 1, 99},
      {"just inside the jump limit", {{100, 1}, {101, 2}, {86'400'098, 3}}, 0, 3, 99},
      {"jump", {{100, 1}, {101, 2}, {86'400'099, 3}}, 1, 1, 86'400'099},
      {"back after one sample", {{100, 1}, {50, 2}}, 0, 1, 50},
      {"second of the seed", {{100, 1}, {101, 2}, {90, 3}, {90, 4}}, 1, 1, 90},
  };
  for (const auto& c : cases) {
    for (const bool time_based : {false, true}) {
      SCOPED_TRACE(testing::Message() << c.name << (time_based ? ", by time" : ", by count"));
      const size_t records_before = RecordCount();
      GaugeProbe gauge = time_based ? TimeBased(1'000'000'000) : SampleBased(1000);
      gauge.Feed(c.samples);
      EXPECT_EQ(RecordCount() - records_before, c.want_records);
      EXPECT_EQ(gauge.N, c.want_n);
      EXPECT_EQ(gauge.refTs, c.want_ref);
    }
  }
}

// Metadata counts the base window's samples, the statistics the gauge's.
TEST_F(GaugeWindowTest, GaugeWindowClosesInsideALongerBaseWindow) {
  GaugeProbe gauge = TimeBased(2);  // 2 ms for the base window, 2 s for the gauge's.
  for (int i = 0; i < 6; ++i) {
    gauge.AddSample(5);
    clock_.AdvanceWall(1);  // The monotonic clock stands: the base window stays open.
  }
  ASSERT_EQ(RecordCount(), 2u);
  EXPECT_EQ(serializer_.lines[0].substr(0, 18), "900: 7 12..12 x2 m")
      << "the third is not counted yet";
  EXPECT_EQ(serializer_.lines[1].substr(0, 18), "900: 7 12..12 x5 m");
  EXPECT_EQ(gauge.N, 1);
  const KpiSamples samples = gauge.CountSamples();
  EXPECT_EQ(samples.logged, 6u);
  EXPECT_EQ(samples.records, 2u);
  EXPECT_EQ(samples.repeated, 2u) << "the second record counts the first one's again";
  EXPECT_EQ(samples.open, 1u);
}

TEST_F(GaugeWindowTest, TimestampsStayWithinTheirCapacity) {
  GaugeProbe day = TimeBased(86'400'000);
  GaugeProbe small = TimeBased(2);
  GaugeProbe huge = SampleBased(kMaxU32);
  for (int i = 0; i < 10; ++i) {
    for (GaugeProbe* gauge : {&day, &small}) gauge->Feed({{100, i}});
  }
  huge.Feed({{100, 1}});
  EXPECT_EQ(day.tsArray.size(), 1u);  // All in one second.
  EXPECT_EQ(small.tsCount, 10u);
  EXPECT_EQ(huge.tsArray.size(), 0u);
  testing::internal::CaptureStdout();
  small.Print();
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 9);
}

}  // namespace
}  // namespace orb::test
