#include "kpi/counter.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <limits>

#include "tests/kpi/kpi_test_support.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_serializer.h"
#include "tests/support/log_capture.h"

namespace orb::test {
namespace {

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

TEST_F(CounterTest, WithoutAWindowEverySampleIsARecord) {
  CounterProbe counter(NumericCfg(COUNTER), &serializer_);
  counter.AddSample(5);
  EXPECT_TRUE(log_.Has(ANDROID_LOG_INFO, "orb_sdk", "numSamples < 1, so skipping"));
  EXPECT_TRUE(serializer_.records().empty());  // The first call closes an empty window.
  counter.AddSample(6);
  counter.AddSample(7);
  const auto records = serializer_.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].data.counters(0).count(), 5u);
  EXPECT_EQ(records[1].data.counters(0).count(), 6u);
}

TEST_F(CounterTest, SumBeyond64BitsAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  counter_.sum = std::numeric_limits<int64_t>::max() - 1;
  EXPECT_EQ(counter_.Aggregate(1), 0);
  EXPECT_ABORT(counter_.Aggregate(1));
}

}  // namespace
}  // namespace orb::test
