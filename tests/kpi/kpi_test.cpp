// The factory, the window and the metadata that every kind shares; the counter,
// which adds a sum to them.
#include "kpi/kpi.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <typeinfo>
#include <vector>

#include "kpi/blob.h"
#include "kpi/counter.h"
#include "kpi/gauge.h"
#include "kpi/histogram.h"
#include "kpi/state_machine.h"
#include "tests/kpi/kpi_test_support.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_serializer.h"
#include "tests/support/log_capture.h"

namespace orb::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

TEST(KpiCreateTest, MakesTheKindThatTypeAndSubtypeName) {
  struct Case {
    const char* name;
    int type;
    int sub_type;
    const std::type_info* want;  // Null: refused.
    const char* message;         // Null: none.
  };
  const Case kCases[] = {
      {"counter", KPI_NUMERIC, COUNTER, &typeid(Counter), nullptr},
      {"gauge", KPI_NUMERIC, GAUGE, &typeid(Gauge), nullptr},
      {"histogram", KPI_NUMERIC, HISTOGRAM, &typeid(Histogram), nullptr},
      {"numeric without subtype", KPI_NUMERIC, INVALID, nullptr, nullptr},
      {"unknown subtype", KPI_NUMERIC, 4, nullptr, nullptr},
      {"state", KPI_STATE, GAUGE, &typeid(StateMachine), nullptr},
      {"blob", KPI_BLOB, INVALID, &typeid(Blob), nullptr},
      {"event", KPI_EVENT, COUNTER, nullptr, "Unknown KPI Type: 201326592 to create"},
      {"no type", KPIType_INVALID, COUNTER, nullptr, "Unknown KPI Type: 0 to create"},
      {"negative type", -5, COUNTER, nullptr, "Unknown KPI Type: -5 to create"},
  };
  FakeSerializer serializer;
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    KPICfg cfg;
    cfg.set_type(static_cast<KPIType>(c.type));
    cfg.set_sub_type(static_cast<KPISubType>(c.sub_type));
    cfg.mutable_b_cfg()->set_single_sample_size_threshold_bytes(100);
    LogCapture log;
    const auto kpi = KPI::Create(cfg, &serializer);
    ASSERT_EQ(kpi == nullptr, c.want == nullptr);
    EXPECT_EQ(log.Lines().size(), c.message == nullptr ? 0u : 1u) << log.Dump();
    if (c.message != nullptr) {
      EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "orb_sdk", c.message)) << log.Dump();
    }
    if (c.want != nullptr) {
      const KPI& made = *kpi;
      EXPECT_EQ(typeid(made), *c.want);
      EXPECT_EQ(kpi->GetType(), c.type);
    }
  }
}

// Bare window logic; counts the closures with samples that Serialize sees.
class WindowProbe : public KPI {
 public:
  using KPI::KPI;
  using KPI::numSamples;
  using KPI::tsEnd;
  using KPI::tsStart;

  int Aggregate(unsigned int value) override { return value == kRejected ? 5 : 0; }
  void ResetAggregates() override { ++resets; }
  bool validCfg() override { return true; }
  int Serialize() override {
    closed.push_back(numSamples);
    return -1;  // Ignored: the window ends either way.
  }

  static constexpr unsigned int kRejected = 13;
  std::vector<uint32_t> closed;  // Samples of each window, as it closed.
  int resets = 0;
};

class KpiWindowTest : public testing::Test {
 protected:
  static WindowProbe Make(const KPICfg& cfg) { return WindowProbe(cfg, nullptr); }
  FakeClock clock_;
};

TEST_F(KpiWindowTest, CountsSamplesPerWindow) {
  struct Case {
    const char* name;
    KPICfg cfg;
    std::vector<uint32_t> with_value;     // Windows closed by six AddSample(value).
    std::vector<uint32_t> without_value;  // Windows closed by six AddSample().
  };
  const KPICfg cfg = NumericCfg(COUNTER);
  const Case kCases[] = {
      {"three samples", WithSampleWindow(cfg, 3), {3}, {3, 3}},
      {"one sample", WithSampleWindow(cfg, 1), {1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}},
      {"zero samples", WithSampleWindow(cfg, 0), {0, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}},
      {"none", cfg, {0, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}},
      {"no time", WithTimeWindow(cfg, 0), {0, 1, 1, 1, 1, 1}, {1, 1, 1, 1, 1, 1}},
      {"2^32 - 1", WithSampleWindow(cfg, 0xFFFFFFFF), {}, {}},
  };
  for (const Case& c : kCases) {
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
  struct Case {
    const char* name;
    uint32_t window_ms;
    nanoseconds elapsed;
    bool closes;
  };
  const Case kCases[] = {
      {"last millisecond", 1000, milliseconds(999), false},
      {"a nanosecond short", 1000, nanoseconds(999'999'999), false},
      {"exact", 1000, milliseconds(1000), true},
      {"clock went back", 1000, -milliseconds(900), false},
      {"limit of 32 bits", 0xFFFFFFFF, milliseconds(0xFFFFFFFE), false},
      {"at the limit of 32 bits", 0xFFFFFFFF, milliseconds(0xFFFFFFFF), true},
  };
  for (const Case& c : kCases) {
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

TEST_F(KpiWindowTest, ARejectedSampleCountsNothingButMayCloseTheWindow) {
  WindowProbe kpi = Make(WithSampleWindow(NumericCfg(COUNTER), 1));
  kpi.AddSample(1);
  clock_.AdvanceSteady(milliseconds(700));
  const KPI::TimePoint closed_at = KPI::TimePoint(milliseconds(1950));
  kpi.AddSample(WindowProbe::kRejected);
  EXPECT_EQ(kpi.closed, std::vector<uint32_t>{1});
  EXPECT_EQ(kpi.numSamples, 0u);
  clock_.AdvanceSteady(milliseconds(700));
  kpi.AddSample(WindowProbe::kRejected);
  EXPECT_EQ(kpi.tsEnd, closed_at);
  EXPECT_EQ(kpi.closed.size(), 1u);
}

TEST_F(KpiWindowTest, MetadataCarriesTenthsOfASecond) {
  WindowProbe kpi = Make(WithTimeWindow(NumericCfg(COUNTER), 60'000));
  kpi.AddSample(1);
  clock_.AdvanceSteady(milliseconds(849));
  kpi.AddSample(1);
  orbtr::MetaData meta;
  kpi.fillMeta(&meta);
  EXPECT_EQ(meta.kpi_id(), kKpiId);
  EXPECT_EQ(meta.ts_start(), 12);
  EXPECT_EQ(meta.ts_end(), 20);
  EXPECT_EQ(meta.num_samples(), 2u);
  EXPECT_EQ(meta.meta_param_5(), 0u);
  EXPECT_EQ(meta.meta_values_6_size(), 0);

  kpi.ResetWindow(KPI::TimePoint(milliseconds(-1250)));
  kpi.fillMeta(&meta);
  EXPECT_EQ(meta.ts_start(), -12);
  EXPECT_EQ(meta.ts_end(), -12);
  EXPECT_EQ(meta.num_samples(), 0u);
  EXPECT_EQ(kpi.resets, 0);

  kpi.numSamples = 0xFFFFFFFF;
  kpi.fillMeta(&meta);
  EXPECT_EQ(meta.num_samples(), 0xFFFFFFFFu);
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

class CounterProbe : public Counter {
 public:
  using Counter::Counter;
  using Counter::sum;
};

class CounterTest : public testing::Test {
 protected:
  CounterTest() : counter_(WithSampleWindow(NumericCfg(COUNTER), 3), &serializer_) {
    counter_.setKPIId(kRoutingId);
  }

  LogCapture log_;
  FakeClock clock_;
  FakeSerializer serializer_;
  CounterProbe counter_;
};

TEST_F(CounterTest, SumsAWindow) {
  for (const unsigned int value : {5u, 7u, 0u, 4294967295u, 4294967295u, 1u, 3u}) {
    counter_.AddSample(value);
  }
  const auto records = serializer_.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].kpi_id, kRoutingId);
  EXPECT_EQ(records[0].data.counters(0).count(), 12u);
  EXPECT_EQ(records[0].data.counters(0).meta().num_samples(), 3u);
  EXPECT_EQ(records[1].data.counters(0).count(), 8589934591u);
  EXPECT_TRUE(log_.Has(ANDROID_LOG_INFO, "orb_sdk",
                       "Counter::Serialize(), numSamples=3, tsStart=1250000000, tsEnd=1250000000"))
      << log_.Dump();
}

TEST_F(CounterTest, RecordBytes) {
  for (int i = 0; i < 4; ++i) counter_.AddSample(100);
  // counters { meta { kpi_id 7, ts_start 12, ts_end 12, num_samples 3 } count 300 }, no version.
  EXPECT_EQ(serializer_.records().at(0).bytes,
            std::string("\x12\x0d\x0a\x08\x08\x07\x10\x0c\x18\x0c\x20\x03\x10\xac\x02"));
}

TEST_F(CounterTest, SerializeReturnsTheSerializersResultAndKeepsTheWindow) {
  EXPECT_EQ(counter_.Serialize(), 0);
  EXPECT_TRUE(serializer_.records().empty());
  counter_.AddSample(9);
  serializer_.FailCall(1, -3);
  EXPECT_EQ(counter_.Serialize(), -3);
  EXPECT_EQ(counter_.Serialize(), 0);
  EXPECT_EQ(serializer_.records().at(0).data.counters(0).count(), 9u);
}

TEST_F(CounterTest, SumBeyond64BitsAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  counter_.sum = std::numeric_limits<int64_t>::max() - 1;
  EXPECT_EQ(counter_.Aggregate(1), 0);
  EXPECT_ABORT(counter_.Aggregate(1));
}

// Whatever the clocks do: what the records count, what is lost and what is open
// add up to what was logged and to what records count again.
TEST(KpiSamplesTest, AddUpForEveryKindAndClock) {
  FakeClock clock;
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (const KPISubType type : {COUNTER, GAUGE, HISTOGRAM}) {
    for (const bool time_window : {false, true}) {
      SCOPED_TRACE(testing::Message() << type << " " << time_window);
      const KPICfg cfg = NumericCfg(type);
      FakeSerializer out;
      const auto kpi =
          KPI::Create(time_window ? WithTimeWindow(cfg, 3000) : WithSampleWindow(cfg, 6), &out);
      for (int i = 0; i < 2000; ++i) {
        clock.AdvanceSteady(milliseconds(random() % 700));
        clock.AdvanceWall(static_cast<int64_t>(random() % 5) - 1);
        kpi->AddSample(random() % 100);
      }
      const KpiSamples samples = kpi->CountSamples();
      uint64_t counted = 0;
      for (const auto& record : out.records()) {
        for (const auto& part : record.data.counters()) counted += part.meta().num_samples();
        for (const auto& part : record.data.gauges()) counted += part.meta().num_samples();
        for (const auto& part : record.data.histograms()) counted += part.meta().num_samples();
      }
      EXPECT_EQ(samples.logged, 2000u);
      EXPECT_EQ(samples.records, out.records().size());
      EXPECT_EQ(samples.logged + samples.repeated,
                counted + samples.lost[LossCause::kNoRecord] + samples.open);
      EXPECT_EQ(samples.repeated != 0, type == GAUGE) << "a gauge also closes windows of its own";
    }
  }
}

}  // namespace
}  // namespace orb::test
