// Reading the clock roughly changes no record and no count: the same samples at the same
// times, once with a rough clock that lags behind and once without.
#include <android/log.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <random>

#include "kpi/kpi.h"
#include "tests/kpi/kpi_test_support.h"
#include "utility/clock.h"

namespace orb::test {
namespace {

using std::chrono::nanoseconds;

constexpr int64_t kLagMaxNs = 9'900'000;

std::atomic<int64_t> now_ns;
std::atomic<int64_t> rough_ns;
std::atomic<uint64_t> exact_reads;

// The system's clocks are back when it goes.
class ScriptedClock {
 public:
  explicit ScriptedClock(bool rough) {
    Clock::Functions functions;
    functions.steady = [] {
      ++exact_reads;
      return Clock::Time(nanoseconds(now_ns));
    };
    functions.wall_seconds = [] { return now_ns / 1'000'000'000; };
    if (rough) functions.rough = [] { return Clock::Time(nanoseconds(rough_ns)); };
    Clock::Use(functions);
  }
  ~ScriptedClock() { Clock::UseSystem(); }
  ScriptedClock(const ScriptedClock&) = delete;
  ScriptedClock& operator=(const ScriptedClock&) = delete;
};

KPICfg AnyCfg(std::mt19937_64* random) {
  const auto below = [&](uint32_t bound) { return static_cast<uint32_t>((*random)() % bound); };
  KPICfg cfg = NumericCfg(std::array{COUNTER, GAUGE, HISTOGRAM}[below(3)]);
  if (cfg.sub_type() == HISTOGRAM) *cfg.mutable_h_cfg() = HistogramLayout({0, 5, 9}, false, false);
  switch (below(4)) {
    case 0:
      return cfg;
    case 1:
      return WithSampleWindow(cfg, 1 + below(40));
    case 2:
      return WithTimeWindow(cfg, 1 + below(300));
    default:
      return WithTimeWindow(cfg, 100 * below(30));
  }
}

// What became of 1,000 samples, between none and 40 milliseconds apart.
std::string Outcome(uint64_t seed, bool rough) {
  std::mt19937_64 random(seed);
  const ScriptedClock clock(rough);
  now_ns = rough_ns = static_cast<int64_t>(random() % 1'000'000'000'000) + kLagMaxNs;
  const KPICfg cfg = AnyCfg(&random);
  const int64_t step_max_ns = int64_t{1} << (10 + random() % 16);
  FakeSerializer out;
  const auto kpi = KPI::Create(cfg, &out);
  for (int i = 0; i < 1000; ++i) {
    now_ns += static_cast<int64_t>(random()) & (step_max_ns - 1);
    // A coarse clock never goes back, and stands at its latest tick.
    const int64_t lag_ns = static_cast<int64_t>(random() % (kLagMaxNs + 1));
    rough_ns = std::max(rough_ns.load(), now_ns - lag_ns);
    EXPECT_EQ(kpi->AddSample(static_cast<unsigned>(random() % 10)), 0);
  }
  kpi->Serialize();
  const KpiSamples samples = kpi->CountSamples();
  return out.text() + std::to_string(samples.logged) + " " + std::to_string(samples.records) + " " +
         std::to_string(samples.open) + " " + std::to_string(samples.repeated);
}

TEST(RoughClockTest, RecordsAndCountsAreThoseOfTheExactClock) {
  __android_log_set_minimum_priority(ANDROID_LOG_WARN);  // A line for each of many windows.
  uint64_t exact = 0;
  uint64_t with_rough = 0;
  for (uint64_t seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE(seed);
    exact_reads = 0;
    const std::string want = Outcome(seed, false);
    exact += exact_reads.exchange(0);
    ASSERT_EQ(Outcome(seed, true), want);
    with_rough += exact_reads;
  }
  EXPECT_LT(with_rough, exact / 2) << "the rough clock is used";
}

}  // namespace
}  // namespace orb::test
