// Sums that no longer fit end the process instead of lying.
#include <gtest/gtest.h>

#include <limits>

#include "tests/kpi/gauge_test_support.h"
#include "tests/support/fake_clock.h"

namespace orb::test {
namespace {

constexpr int64_t kMax64 = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
constexpr int32_t kMax32 = std::numeric_limits<int32_t>::max();
constexpr uint32_t kMaxU32 = std::numeric_limits<uint32_t>::max();
constexpr int64_t kTooLargeToSquare = int64_t{1} << 32;

class GaugeOverflowTest : public testing::Test {
 protected:
  GaugeOverflowTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  GaugeProbe Make(bool time_based) {
    const KPICfg cfg = GaugeCfg(AllStatistics());
    return GaugeProbe(time_based ? WithTimeWindow(cfg, 1000) : WithSampleWindow(cfg, 1000),
                      &serializer_);
  }

  FakeClock clock_;
  FakeSerializer serializer_;
};

TEST_F(GaugeOverflowTest, NewSample) {
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
      {"N", false, [](GaugeProbe* g) { g->N = kMax32; }, {101, 5}},
      {"sampleSpan", true, [](GaugeProbe* g) { g->sampleSpan = kMax32; }, {101, 5}},
      {"tsCount", false, [](GaugeProbe* g) { g->tsCount = kMaxU32; }, {101, 5}},
      {"tsIndex", false, [](GaugeProbe* g) { g->tsIndex = kMaxU32; }, {101, 5}},
      {"ts - refTs", false, [](GaugeProbe* g) { g->refTs = -2; }, {kMax64, 5}},
      {"ts - 1", false, [](GaugeProbe* g) { g->ResetAggregates(); }, {kMin64, 5}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    GaugeProbe gauge = Make(c.time_based);
    Feed(&gauge, {{100, 1}});  // The first sample clears the sums; the second adds.
    c.spoil(&gauge);
    EXPECT_ABORT(gauge.NewTimedSample(c.sample.ts, c.sample.value));
  }
}

TEST_F(GaugeOverflowTest, Statistics) {
  struct Case {
    const char* name;
    void (*spoil)(GaugeProbe*);
    bool needs_line;  // Else the variance.
  };
  const Case kCases[] = {
      {"sumX * sumY",
       [](GaugeProbe* g) {
         g->sumX = int64_t{1} << 62;
         g->sumY = 4;
       },
       true},
      {"sumX * sumX",
       [](GaugeProbe* g) {
         g->sumX = kTooLargeToSquare;
         g->sumY = 0;
       },
       true},
      {"sumX * sumX / N - sumXX", [](GaugeProbe* g) { g->sumXX = kMin64; }, true},
      {"sumY * sumY", [](GaugeProbe* g) { g->sumY = kTooLargeToSquare; }, false},
      {"sumYY - sumY * sumY / N", [](GaugeProbe* g) { g->sumYY = kMin64; }, false},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    GaugeConfig line, deviation;
    line.set_report_offset(true);
    deviation.set_report_stdev(true);
    for (const bool line_selected : {true, false}) {
      GaugeProbe gauge(WithSampleWindow(GaugeCfg(line_selected ? line : deviation), 1000),
                       &serializer_);
      Feed(&gauge, {{100, 1}, {101, 3}});
      c.spoil(&gauge);
      if (line_selected == c.needs_line) {
        EXPECT_ABORT(gauge.Serialize());
      } else {
        EXPECT_EQ(gauge.Serialize(), 0);  // What is not selected is not computed.
      }
    }
  }
}

}  // namespace
}  // namespace orb::test
