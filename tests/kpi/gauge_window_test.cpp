// The gauge's own window, its seed, and how it meets the base window.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "tests/kpi/gauge_test_support.h"
#include "tests/support/fake_clock.h"

namespace orb::test {
namespace {

class GaugeWindowTest : public testing::Test {
 protected:
  GaugeProbe SampleBased(uint32_t samples) {
    return GaugeProbe(WithSampleWindow(GaugeCfg(AllStatistics()), samples), &serializer_);
  }
  GaugeProbe TimeBased(uint32_t limit) {
    return GaugeProbe(WithTimeWindow(GaugeCfg(AllStatistics()), limit), &serializer_);
  }
  size_t RecordCount() { return serializer_.records().size(); }

  FakeClock clock_;
  FakeSerializer serializer_;
};

TEST_F(GaugeWindowTest, ClosesOneSampleBeyondTheCountAndSeedsTheNext) {
  GaugeProbe gauge = SampleBased(3);
  Feed(&gauge, {{100, 10}, {101, 20}, {102, 30}});
  EXPECT_EQ(RecordCount(), 0u);
  testing::internal::CaptureStdout();
  Feed(&gauge, {{103, 40}});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            " Index: 0  of 4 SlopeBased 0 Min 10 Max 40 Avg 25\n"
            " Index: 1  of 4 SlopeBased 10 Min 10 Max 40 Avg 25\n"
            " Index: 2  of 4 SlopeBased 20 Min 10 Max 40 Avg 25\n");
  ASSERT_EQ(RecordCount(), 1u);
  EXPECT_EQ(LastGauge(serializer_).max(), 40);
  // The closing sample counts again, at offset 0.
  EXPECT_EQ(gauge.N, 1);
  EXPECT_EQ(gauge.refTs, 103);
  EXPECT_EQ(gauge.sumY, 40);
  EXPECT_EQ(gauge.sumYY, 1600);
  EXPECT_EQ(gauge.sumX, 0);
  EXPECT_EQ(gauge.stdev, 40);
  EXPECT_EQ(gauge.b1, 0);
  EXPECT_EQ(gauge.tsIndex, 0u);
  Feed(&gauge, {{104, 50}, {105, 60}, {106, 70}});
  EXPECT_EQ(RecordCount(), 2u);
  EXPECT_EQ(LastGauge(serializer_).min(), 40);
  EXPECT_EQ(LastGauge(serializer_).mean(), 55);
}

TEST_F(GaugeWindowTest, TimeLimitIsComparedWithSeconds) {
  GaugeProbe gauge = TimeBased(2);
  EXPECT_TRUE(gauge.TIMEBASED());
  Feed(&gauge, {{100, 1}, {101, 2}, {101, 3}});
  EXPECT_EQ(RecordCount(), 0u);
  Feed(&gauge, {{102, 4}});
  ASSERT_EQ(RecordCount(), 1u);
  EXPECT_EQ(LastGauge(serializer_).max(), 4);
  EXPECT_EQ(gauge.sampleSpan, 4);
  // The seed lies at offset 0, so the next window is a second longer.
  Feed(&gauge, {{103, 5}, {104, 6}});
  EXPECT_EQ(RecordCount(), 1u);
  Feed(&gauge, {{105, 7}});
  EXPECT_EQ(RecordCount(), 2u);
  // The running count becomes the window's own at every closure and record.
  EXPECT_EQ(gauge.sampleSpan, 4);
  Feed(&gauge, {{105, 8}});
  EXPECT_EQ(gauge.sampleSpan, 1);
  Feed(&gauge, {{106, 9}, {107, 9}});
  gauge.sampleSpan = 77;
  gauge.Serialize();
  EXPECT_EQ(gauge.sampleSpan, 3);
}

// Samples, and how many records and how many samples remain after the last.
TEST_F(GaugeWindowTest, AClockThatDoesNotAdvanceClosesTheWindow) {
  struct Case {
    const char* name;
    std::vector<TimedValue> samples;
    size_t want_records;
    int32_t want_n;
    long long want_ref;
  };
  const Case kCases[] = {
      {"second of a fresh window's first", {{100, 1}, {100, 2}}, 0, 2, 99},
      {"step back", {{100, 1}, {101, 2}, {90, 3}}, 1, 1, 90},
      {"back to the reference second", {{100, 1}, {101, 2}, {99, 3}}, 1, 1, 99},
      {"just inside the jump limit", {{100, 1}, {101, 2}, {86'400'098, 3}}, 0, 3, 99},
      {"jump", {{100, 1}, {101, 2}, {86'400'099, 3}}, 1, 1, 86'400'099},
      {"back after one sample", {{100, 1}, {50, 2}}, 0, 1, 50},
      {"second of the seed", {{100, 1}, {101, 2}, {90, 3}, {90, 4}}, 1, 1, 90},
  };
  for (const Case& c : kCases) {
    for (const bool time_based : {false, true}) {
      SCOPED_TRACE(testing::Message() << c.name << (time_based ? ", by time" : ", by count"));
      const size_t records_before = RecordCount();
      GaugeProbe gauge = time_based ? TimeBased(1'000'000'000) : SampleBased(1000);
      Feed(&gauge, c.samples);
      EXPECT_EQ(RecordCount() - records_before, c.want_records);
      EXPECT_EQ(gauge.N, c.want_n);
      EXPECT_EQ(gauge.refTs, c.want_ref);
    }
  }
}

// The base window closes first: the gauge's own never fills by count.
TEST_F(GaugeWindowTest, BaseWindowWritesAndResets) {
  GaugeProbe gauge = SampleBased(3);
  for (const unsigned int value : {10u, 20u, 30u, 1u, 2u, 3u, 0u}) {
    gauge.AddSample(value);
    clock_.AdvanceWall(1);
    clock_.AdvanceSteady(std::chrono::seconds(1));
  }
  const auto records = serializer_.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].kpi_id, kRoutingId);
  EXPECT_EQ(records[0].data.gauges(0).meta().num_samples(), 3u);
  EXPECT_EQ(records[0].data.gauges(0).meta().ts_end(), 32);
  EXPECT_EQ(records[0].data.gauges(0).slope(), 10);
  EXPECT_EQ(records[1].data.gauges(0).max(), 3);
  EXPECT_EQ(records[1].data.gauges(0).slope(), 1);
  EXPECT_EQ(gauge.refTs, 105);
}

// Metadata counts the base window's samples, the statistics the gauge's.
TEST_F(GaugeWindowTest, GaugeWindowClosesInsideALongerBaseWindow) {
  GaugeProbe gauge = TimeBased(2);  // 2 ms for the base window, 2 s for the gauge's.
  for (int i = 0; i < 4; ++i) {
    gauge.AddSample(5);
    clock_.AdvanceWall(1);  // The monotonic clock stands: the base window stays open.
  }
  ASSERT_EQ(RecordCount(), 1u);
  EXPECT_EQ(LastGauge(serializer_).meta().num_samples(), 2u);  // The third is not counted yet.
  EXPECT_EQ(gauge.numSamples, 4u);
  EXPECT_EQ(gauge.N, 2);
}

TEST_F(GaugeWindowTest, TimestampsStayWithinTheirCapacity) {
  GaugeProbe day = TimeBased(86'400'000);
  GaugeProbe small = TimeBased(2);
  GaugeProbe huge = SampleBased(0xFFFFFFFF);
  for (int i = 0; i < 10; ++i) {
    for (GaugeProbe* gauge : {&day, &small}) gauge->NewTimedSample(100, i);
  }
  Feed(&huge, {{100, 1}});
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
