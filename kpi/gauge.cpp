// Tested by tests/kpi/gauge_test.cpp.
#include "kpi/gauge.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "proto/kpi_kinds.h"
#include "serializer/kpi_serializer.h"
#include "utility/checked.h"
#include "utility/clock.h"
#include "utility/contained.h"
#include "utility/log.h"
#include "utility/quiet_write.h"

using orb::CheckedAdd;
using orb::CheckedDiv;
using orb::CheckedMul;
using orb::CheckedSub;

namespace {

// A day in milliseconds, but the system compares it with seconds. So only a clock that was
// set years ahead closes a window.
constexpr int64_t kTimeOffsetLimit = 86'400'000;

constexpr size_t kPrintedLineMax = 256;  // Holds four integers, two %g, and 53 other bytes.

// The first value of a window is stored as a float and loses the bits that do not fit one.
int32_t ThroughFloat(int32_t value) {
  const float rounded = static_cast<float>(value);
  if (rounded >= 2147483648.0f) return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(rounded);
}

}  // namespace

Gauge::Gauge(const KPICfg& cfg, KPISerializer* serializer) : KPI(cfg, serializer) {
  int32_t limit;
  if (cfg.agg_window_oneof_case() == KPICfg::kTimeWindow) {
    mode = kTimeBased;
    limit = timeSpan = static_cast<int32_t>(cfg.time_window());
  } else {
    mode = kSampleBased;
    limit = sampleSpan = static_cast<int32_t>(cfg.sample_window());
  }
  tsCapacity = static_cast<uint32_t>(std::max(limit, 0));
}

int Gauge::Aggregate(unsigned int value) {
  NewTimedSample(orb::Clock::WallSeconds(), static_cast<int>(value));
  return 0;
}

void Gauge::ResetAggregates() {
  avg = 0;
  max = std::numeric_limits<int32_t>::min();
  min = std::numeric_limits<int32_t>::max();
  N = 0;
  tsCount = 0;
  tsIndex = 0;
  (TIMEBASED() ? sampleSpan : timeSpan) = 0;
}

bool Gauge::validCfg() { return true; }

int Gauge::Serialize() {
  // The first number is the count of the gauge's own window, not of the base class's.
  LOGD("Gauge::Serialize(), numSamples=%d, N=%d tsStart=%ld, tsEnd=%ld", N, sampleSpan,
       Nanoseconds(tsStart), Nanoseconds(tsEnd));
  if (N < 2) return 0;
  if (TIMEBASED()) sampleSpan = N;
  orbtr::KPIData& data = serializer->EmptyRecord(orb::KpiKind::kGauge);
  orbtr::Gauge* record = data.mutable_gauges(0);
  fillMeta(record->mutable_meta());
  FillStatistics(record);
  LOGD("Gauze: Min %d Max %d Samples %d Avg %f Stdev %f b0 %f b1 %f", min, max, N,
       static_cast<double>(avg), static_cast<double>(stdev), static_cast<double>(b0),
       static_cast<double>(b1));
  return WriteWindow(data);
}

void Gauge::NewTimedSample(long long ts, int value) {
  StoreTimestamp(ts);
  if (IsFirstSample()) {
    StartWindow(ts, value);
  } else if (value < min) {
    min = value;
  }
  if (value > max) max = value;
  avg = (avg * static_cast<float>(N) + static_cast<float>(value)) /
        static_cast<float>(CheckedAdd<int32_t>(N, 1));
  const int64_t dt = CheckedSub<int64_t>(ts, refTs);
  if (refTs < ts && dt < kTimeOffsetLimit) {
    AddToSums(dt, value);
    if (SampleAdd(ts) == 0) return;
  }
  // The window is full, or the clock stood still, went back or jumped.
  CloseGaugeWindow(ts);
  SeedWindow(ts, value);
}

int Gauge::SampleAdd(long long ts) {
  N = CheckedAdd<int32_t>(N, 1);
  const int64_t elapsed_s = CheckedSub<int64_t>(ts, refTs);
  if (TIMEBASED()) {
    sampleSpan = CheckedAdd<int32_t>(sampleSpan, 1);
    return elapsed_s > timeSpan ? 1 : 0;  // Seconds against the configured number, as it is.
  }
  timeSpan = static_cast<int32_t>(elapsed_s);
  return N > sampleSpan ? 1 : 0;
}

// Does not use stdio: another thread of the host may hold the lock of stdout for long.
void Gauge::Print() const {
  orb::LineOffer out(STDOUT_FILENO);
  size_t run = 0;
  for (int32_t i = 0; i + 1 < N; ++i) {
    while (run + 1 < tsFirst.size() && tsFirst[run + 1] <= static_cast<uint32_t>(i)) ++run;
    const int64_t offset_s =
        tsArray.empty() ? 0 : CheckedSub<int64_t>(tsArray[run], tsArray.front());
    char line[kPrintedLineMax];
    const int length =
        snprintf(line, sizeof line, " Index: %d  of %d SlopeBased %g Min %d Max %d Avg %g\n", i, N,
                 static_cast<double>(b0 + b1 * static_cast<float>(offset_s)), min, max,
                 static_cast<double>(avg));
    if (!out.Add({line, static_cast<size_t>(length)})) return;
  }
}

bool Gauge::IsFirstSample() const { return (TIMEBASED() ? sampleSpan : timeSpan) == 0; }

// Memory grows with the seconds that pass. It does not grow with the samples, and is not
// allocated for the whole window: a day in milliseconds would take 691 MB at once.
void Gauge::StoreTimestamp(int64_t ts) {
  if (tsIndex == 0) {
    tsArray.clear();
    tsFirst.clear();
  }
  if (tsIndex < tsCapacity && (tsArray.empty() || tsArray.back() != ts)) {
    tsArray.push_back(ts);
    tsFirst.push_back(tsIndex);
  }
  tsCount = CheckedAdd<uint32_t>(tsCount, 1);
  tsIndex = CheckedAdd<uint32_t>(tsIndex, 1);
}

// The first sample of a new window is at offset 1, not 0. N keeps its value.
void Gauge::StartWindow(int64_t ts, int32_t value) {
  max = min = value;
  avg = static_cast<float>(value);
  refTs = CheckedSub<int64_t>(ts, 1);
  sumX = sumY = sumYY = sumXY = sumXX = 0;
}

void Gauge::AddToSums(int64_t dt, int32_t value) {
  sumX = CheckedAdd<int64_t>(sumX, dt);
  sumY = CheckedAdd<int64_t>(sumY, value);
  sumYY = CheckedAdd<int64_t>(sumYY, CheckedMul<int64_t>(value, value));
  sumXY = CheckedAdd<int64_t>(sumXY, CheckedMul<int64_t>(dt, value));
  sumXX = CheckedAdd<int64_t>(sumXX, CheckedMul<int64_t>(dt, dt));
}

void Gauge::CloseGaugeWindow(int64_t ts) {
  if (TIMEBASED()) {
    sampleSpan = N;
  } else {
    timeSpan = static_cast<int32_t>(CheckedSub<int64_t>(ts, refTs));
  }
  // The sums contain the sample already, so the window ends even when there is no memory for
  // its record.
  orb::Contained("Gauge", [this] { Serialize(); });
  Print();
}

void Gauge::SeedWindow(int64_t ts, int32_t value) {
  avg = static_cast<float>(value);
  stdev = static_cast<float>(value);
  N = 1;
  refTs = ts;
  max = min = ThroughFloat(value);
  sumYY = CheckedMul<int64_t>(value, value);
  sumY = value;
  sumX = sumXY = sumXX = 0;
  b0 = b1 = 0;
  tsIndex = 0;
}

// Fits the line by least squares. When all times are equal the denominator is 0, and slope
// and offset are infinite or NaN.
void Gauge::FitLine() {
  const float n = static_cast<float>(N);
  const float numerator =
      static_cast<float>(CheckedMul<int64_t>(sumX, sumY)) / n - static_cast<float>(sumXY);
  const int64_t square = CheckedDiv<int64_t>(CheckedMul<int64_t>(sumX, sumX), N);
  const float denominator = static_cast<float>(CheckedSub<int64_t>(square, sumXX));
  b1 = numerator / denominator;
  b0 = (static_cast<float>(sumY) - b1 * static_cast<float>(sumX)) / n;
}

// Computes with integers only: both divisions truncate.
int64_t Gauge::Variance() const {
  const int64_t square = CheckedDiv<int64_t>(CheckedMul<int64_t>(sumY, sumY), N);
  return CheckedDiv<int64_t>(CheckedSub<int64_t>(sumYY, square), CheckedSub<int32_t>(N, 1));
}

void Gauge::FillStatistics(orbtr::Gauge* record) {
  const GaugeConfig& selected = cfg.g_cfg();
  if (selected.report_slope() || selected.report_offset()) {
    FitLine();
    record->set_slope(b1);
    record->set_offset(b0);
  }
  if (selected.report_stdev() || selected.report_variance()) {
    const int64_t variance = Variance();
    stdev = static_cast<float>(std::sqrt(static_cast<double>(variance)));
    if (selected.report_stdev()) record->set_stdev(stdev);
    if (selected.report_variance()) record->set_variance(static_cast<float>(variance));
  }
  if (selected.report_mean()) record->set_mean(std::trunc(avg));
  if (selected.report_min()) record->set_min(min);
  if (selected.report_max()) record->set_max(max);
}
