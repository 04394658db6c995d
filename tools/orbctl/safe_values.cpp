// The limits are those of the sums in kpi/gauge.cpp, kpi/counter.cpp and
// kpi/kpi.h; docs/campaigns.md states them for people.
// Tested by tests/orbctl/safe_values_test.cpp.
#include "tools/orbctl/safe_values.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "proto/kpi_kinds.h"

namespace orb::orbctl {
namespace {

// Wide enough for a product of 64-bit numbers.
__extension__ using Wide = unsigned __int128;

constexpr Wide kSumMax = std::numeric_limits<int64_t>::max();
constexpr Wide kRootMax = 3'037'000'499;  // The largest number whose square fits.
static_assert(kRootMax * kRootMax <= kSumMax && (kRootMax + 1) * (kRootMax + 1) > kSumMax);
constexpr Wide kNanosecondsPerSecond = 1'000'000'000;
// A gauge closes its window when the clock gets so far, in seconds.
constexpr Wide kSecondsMax = 86'400'000;

constexpr int64_t kGaugeMax = int64_t{1} << 31;  // Magnitude of a signed value.
constexpr int64_t kCounterMax = std::numeric_limits<uint32_t>::max();

Wide DivideUp(Wide a, Wide b) { return (a + b - 1) / b; }

Wide SquareRoot(Wide square) {
  auto root = static_cast<Wide>(std::sqrt(static_cast<long double>(square)));
  while (root * root > square) --root;
  while ((root + 1) * (root + 1) <= square) ++root;
  return root;
}

uint64_t SamplesOf(const KPICfg& cfg, std::chrono::nanoseconds interval) {
  if (cfg.agg_window_oneof_case() != KPICfg::kTimeWindow) return cfg.sample_window();
  const std::chrono::nanoseconds window = std::chrono::milliseconds(cfg.time_window());
  return static_cast<uint64_t>(
      DivideUp(static_cast<Wide>(window.count()), static_cast<Wide>(interval.count())));
}

// Keeps the narrowest of several limits.
class Narrowest {
 public:
  explicit Narrowest(uint64_t samples, int64_t largest) {
    safe_.samples = samples;
    safe_.largest = largest;
    safe_.any = true;
  }
  // Values up to `largest` keep the sum that `limit` names.
  void Allow(Wide largest, const char* limit) {
    if (largest < static_cast<Wide>(std::max(safe_.largest, int64_t{0}))) {
      Narrow(static_cast<int64_t>(largest), limit);
    }
  }
  // A sum to which the values add nothing.
  void Require(bool fits, const char* limit) {
    if (!fits && safe_.largest != SafeValues::kNone) Narrow(SafeValues::kNone, limit);
  }
  const SafeValues& result() const { return safe_; }

 private:
  void Narrow(int64_t largest, const char* limit) {
    safe_.largest = largest;
    safe_.limit = limit;
    safe_.any = false;
  }

  SafeValues safe_;
};

// The sums over a window's time axis. Sample i of n lies at second
// x(i) = 1 + ceil(i * interval) at most, which is below first + i * interval.
struct TimeSums {
  // The window lasts kSecondsMax at most, so that no product grows out of Wide.
  TimeSums(Wide n, Wide gap_ns) {
    constexpr Wide kSecond2 = kNanosecondsPerSecond * kNanosecondsPerSecond;
    const Wide first = gap_ns % kNanosecondsPerSecond == 0 ? 1 : 2;
    const Wide gaps = DivideUp(gap_ns * n * (n - 1), kNanosecondsPerSecond);
    const Wide gaps2 = DivideUp(gap_ns * n * gap_ns * (n - 1), kSecond2);
    seconds = first * n + DivideUp(gaps, 2);
    squares = first * first * n + first * gaps + DivideUp(gaps2 * (2 * n - 1), 6);
  }

  Wide seconds = 0;  // Sum of x.
  Wide squares = 0;  // Sum of x * x.
};

SafeValues OfGauge(const KPICfg& cfg, std::chrono::nanoseconds interval, uint64_t samples) {
  const auto gap_ns = static_cast<Wide>(interval.count());
  const Wide closed_by_clock = kSecondsMax * kNanosecondsPerSecond / gap_ns + 1;
  samples = static_cast<uint64_t>(std::min<Wide>(samples, closed_by_clock));
  // A window that is negative as a signed number closes with its second sample.
  constexpr uint32_t kWindowMax = std::numeric_limits<int32_t>::max();
  if (std::max(cfg.sample_window(), cfg.time_window()) > kWindowMax) samples = 2;
  Narrowest safe(samples, kGaugeMax);
  if (samples < 2) return safe.result();  // Such a window writes nothing.
  const GaugeConfig& selected = cfg.g_cfg();
  const TimeSums time(samples, gap_ns);
  safe.Require(samples <= kWindowMax, "the number of samples");
  // Where both of these fit, the sum of seconds times values does, too.
  safe.Require(time.squares <= kSumMax, "the sum of the seconds squared");
  safe.Allow(SquareRoot(kSumMax / samples), "the sum of the values squared");
  if (selected.report_stdev() || selected.report_variance()) {
    safe.Allow(kRootMax / samples, "stdev or variance: the square of the values' sum");
  }
  if (selected.report_slope() || selected.report_offset()) {
    safe.Require(time.seconds <= kRootMax, "slope or offset: the square of the seconds' sum");
    safe.Allow(kSumMax / (time.seconds * samples),
               "slope or offset: the seconds' sum times the values' sum");
  }
  return safe.result();
}

}  // namespace

SafeValues SafeValuesOf(const KPICfg& cfg, std::chrono::nanoseconds interval) {
  const uint64_t samples = SamplesOf(cfg, interval);
  Narrowest safe(samples, kCounterMax);
  safe.Require(samples <= std::numeric_limits<uint32_t>::max(), "the number of samples");
  switch (KindOf(cfg).value_or(KpiKind::kState)) {
    case KpiKind::kGauge:
      return OfGauge(cfg, interval, samples);
    case KpiKind::kCounter:
      if (samples > 0) safe.Allow(kSumMax / samples, "the sum of the values");
      break;
    case KpiKind::kHistogram:
    case KpiKind::kState:
    case KpiKind::kBlob:
      break;
  }
  return safe.result();
}

}  // namespace orb::orbctl
