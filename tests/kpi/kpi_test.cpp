// The window, the metadata and the record that every kind shares.
#include "kpi/kpi.h"

#include <vector>

#include "kpi/counter.h"
#include "tests/kpi/kpi_test_support.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace orb::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// Bare window logic; counts the closures with samples that Serialize sees.
class WindowProbe : public KPI {
 public:
  using KPI::KPI;
  using KPI::numSamples;
  using KPI::tsStart;

  int Aggregate(unsigned int) override { return 0; }
  void ResetAggregates() override { ++resets; }
  bool validCfg() override { return true; }
  int Serialize() override {
    closed.push_back(numSamples);
    return -1;  // Ignored: the window ends either way.
  }

  std::vector<uint32_t> closed;  // Samples of each window, as it closed.
  int resets = 0;
};

class KpiWindowTest : public testing::Test {
 protected:
  static WindowProbe Make(const KPICfg& cfg) { return WindowProbe(cfg, nullptr); }
  FakeClock clock_;
};

TEST_F(KpiWindowTest, CountsSamplesPerWindow) {
  const KPICfg cfg = NumericCfg(COUNTER);
  const struct {
    const char* name;
    KPICfg cfg;
    std::vector<uint32_t> with_value;     // Windows closed by six AddSample(value).
    std::vector<uint32_t> without_value;  // Windows closed by six AddSample().
  } cases[] = {
      {"three samples", WithSampleWindow(cfg, 3), {3}, {3, 3}},
      {"one sample", WithSampleWindow(cfg, 1), {1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}},
      {"zero samples", WithSampleWindow(cfg, 0), {0, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}},
      {"none", cfg, {0, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}},
      {"no time", WithTimeWindow(cfg, 0), {0, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}},
      {"2^32 - 1", WithSampleWindow(cfg, 0xFFFFFFFF), {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    WindowProbe with_value = Make(c.cfg);
    WindowProbe without_value = Make(c.cfg);
    for (int i = 0; i < 6; ++i) {
      EXPECT_EQ(with_value.AddSample(1), 0);
      EXPECT_EQ(without_value.AddSample(), 0);
    }
    EXPECT_EQ(with_value.closed, c.with_value);
    EXPECT_EQ(without_value.closed, c.without_value);
    EXPECT_EQ(with_value.resets, static_cast<int>(c.with_value.size()));
  }
}

TEST_F(KpiWindowTest, TimeWindowEndsAtItsLastMillisecond) {
  const struct {
    const char* name;
    uint32_t window_ms;
    nanoseconds elapsed;
    bool closes;
  } cases[] = {
      {"last millisecond", 1000, milliseconds(999), false},
      {"a nanosecond short", 1000, nanoseconds(999'999'999), false},
      {"exact", 1000, milliseconds(1000), true},
      {"clock went back", 1000, -milliseconds(900), false},
      {"limit of 32 bits", 0xFFFFFFFF, milliseconds(0xFFFFFFFE), false},
      {"at the limit of 32 bits", 0xFFFFFFFF, milliseconds(0xFFFFFFFF), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clock_.SetSteady(milliseconds(1250));
    WindowProbe kpi = Make(WithTimeWindow(NumericCfg(COUNTER), c.window_ms));
    kpi.AddSample(1);
    clock_.AdvanceSteady(c.elapsed);
    kpi.AddSample(1);
    EXPECT_EQ(kpi.closed.size(), c.closes ? 1u : 0u);
    EXPECT_EQ(kpi.numSamples, c.closes ? 1u : 2u);
  }
}

TEST_F(KpiWindowTest, OverflowAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  WindowProbe kpi = Make(WithSampleWindow(NumericCfg(COUNTER), 0xFFFFFFFF));
  kpi.AddSample(1);
  kpi.numSamples = 0xFFFFFFFE;
  kpi.AddSample(1);
  EXPECT_EQ(kpi.numSamples, 0xFFFFFFFF);
  EXPECT_ABORT(kpi.AddSample());

  WindowProbe timed = Make(WithTimeWindow(NumericCfg(COUNTER), 1000));
  timed.numSamples = 0xFFFFFFFF;
  EXPECT_ABORT(timed.AddSample(1));
  EXPECT_ABORT(timed.AddSample());
  timed.tsStart = KPI::TimePoint(nanoseconds(-2));
  const KPI::TimePoint end_of_time{nanoseconds(std::numeric_limits<int64_t>::max())};
  EXPECT_ABORT(timed.IsWithinWindow(end_of_time));
}

TEST(KpiRecordTest, EveryWindowBecomesARecord) {
  const struct {
    KPISubType type;
    std::vector<unsigned int> values;  // A second apart; the last two stay open.
    const char* want;
    const char* want_log_when_empty;
  } cases[] = {
      {COUNTER,
       {5, 7, 0, 0xFFFFFFFF, 0xFFFFFFFF, 1, 3, 4},
       "900: 7 12..32 x3 count 12\n"
       "900: 7 42..62 x3 count 8589934591\n",
       "4 orb_sdk: Counter::Serialize(), numSamples=0, tsStart=0, tsEnd=0\n"
       "4 orb_sdk: numSamples < 1, so skipping\n"},
      {HISTOGRAM,
       {5, 25, 300, 25, 15, 19, 3, 4},
       "900: 7 12..32 x3 buckets 1 0 2\n"
       "900: 7 42..62 x3 buckets 0 2 1\n",
       "4 orb_sdk: Histogram::Serialize(), numSamples=0, tsStart=0, tsEnd=0\n"
       "4 orb_sdk: numSamples < 1, so skipping\n"},
      {GAUGE,  // Its own window is as long, and never fills before this one closes.
       {10, 20, 30, 1, 2, 3, 0, 4},
       "900: 7 12..32 x3 min 10 max 30 slope 10 offset 0\n"
       "900: 7 42..62 x3 min 1 max 3 slope 1 offset 0\n",
       "3 orb_sdk: Gauge::Serialize(), numSamples=0, N=3 tsStart=0, tsEnd=0\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.want);
    FakeClock clock;
    FakeSerializer serializer;
    KPICfg cfg = WithSampleWindow(NumericCfg(c.type), 3);
    cfg.mutable_g_cfg()->set_report_min(true);
    cfg.mutable_g_cfg()->set_report_max(true);
    cfg.mutable_g_cfg()->set_report_slope(true);
    if (c.type == HISTOGRAM) *cfg.mutable_h_cfg() = HistogramLayout({10, 20}, true, true);
    const auto kpi = KPI::Create(cfg, &serializer);
    kpi->setKPIId(kRoutingId);
    {
      const LogCapture log;
      EXPECT_EQ(kpi->Serialize(), 0);
      EXPECT_EQ(log.Dump(), c.want_log_when_empty);
    }
    for (const unsigned int value : c.values) {
      kpi->AddSample(value);
      clock.AdvanceWall(1);
      clock.AdvanceSteady(milliseconds(1000));
    }
    EXPECT_EQ(serializer.text(), c.want);
    serializer.FailNext(-3);
    EXPECT_EQ(kpi->Serialize(), -3);
  }
}

class CounterProbe : public Counter {
 public:
  using Counter::Counter;
  using Counter::sum;
};

TEST(CounterTest, SumBeyond64BitsAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  CounterProbe counter(NumericCfg(COUNTER), nullptr);
  counter.sum = std::numeric_limits<int64_t>::max() - 1;
  EXPECT_EQ(counter.Aggregate(1), 0);
  EXPECT_ABORT(counter.Aggregate(1));
}

}  // namespace
}  // namespace orb::test
