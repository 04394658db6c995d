// Tested by tests/kpi/kpi_test.cpp.
#include "kpi/kpi.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <ratio>
#include <type_traits>

#include "kpi/blob.h"
#include "kpi/counter.h"
#include "kpi/gauge.h"
#include "kpi/histogram.h"
#include "kpi/state_machine.h"
#include "proto/kpi_kinds.h"
#include "serializer/kpi_serializer.h"
#include "utility/checked.h"
#include "utility/clock.h"
#include "utility/log.h"

namespace {

constexpr int64_t kNanosecondsPerTenth = 100'000'000;
static_assert(std::is_same_v<KPI::TimePoint::period, std::nano>);

// Null for an unknown kind. Only an unknown type is logged, not an unknown subtype.
std::unique_ptr<KPI> CreateUnchecked(const KPICfg& cfg, KPISerializer* serializer) {
  const std::optional<orb::KpiKind> kind = orb::KindOf(cfg);
  if (!kind) {
    if (cfg.type() != KPI_NUMERIC) {
      LOGE("Unknown KPI Type: %d to create", static_cast<int>(cfg.type()));
    }
    return nullptr;
  }
  switch (*kind) {
    case orb::KpiKind::kCounter:
      return std::make_unique<Counter>(cfg, serializer);
    case orb::KpiKind::kGauge:
      return std::make_unique<Gauge>(cfg, serializer);
    case orb::KpiKind::kHistogram:
      return std::make_unique<Histogram>(cfg, serializer);
    case orb::KpiKind::kState:
      return std::make_unique<StateMachine>(cfg, serializer);
    case orb::KpiKind::kBlob:
      return std::make_unique<Blob>(cfg, serializer);
  }
  return nullptr;
}

}  // namespace

KPI::KPI(const KPICfg& cfg, KPISerializer* serializer) : cfg(cfg), serializer(serializer) {}

std::unique_ptr<KPI> KPI::Create(const KPICfg& cfg, KPISerializer* serializer) {
  std::unique_ptr<KPI> kpi = CreateUnchecked(cfg, serializer);
  if (kpi == nullptr || !kpi->validCfg()) return nullptr;
  return kpi;
}

int KPI::AddExactly(unsigned int value) {
  const TimePoint now = orb::Clock::Steady();
  if (tsStart == TimePoint{}) tsStart = now;
  if (!IsWithinWindow(now)) CloseWindow(now);
  BeSureFrom(now);
  if (Aggregate(value) != 0) return 0;
  tsEnd = now;
  numSamples = orb::CheckedAdd<uint32_t>(numSamples, 1);
  return 0;
}

void KPI::BeSureFrom(TimePoint now) {
  using std::chrono::nanoseconds;
  sureSamples = 0;
  if (!orb::Clock::IsRoughUsable()) return;
  sureFrom = now;
  TimePoint end(nanoseconds((Tenths(now) + 1) * kNanosecondsPerTenth));
  if (cfg.agg_window_oneof_case() == KPICfg::kTimeWindow) {
    end = std::min(end, tsStart + std::chrono::milliseconds(cfg.time_window()));
    sureSamples = std::numeric_limits<uint32_t>::max();
  } else {
    sureSamples = cfg.sample_window();  // 0 without a window.
  }
  sureUntil = end - orb::Clock::kRoughLagMax;
}

int KPI::AddSample() {
  const TimePoint now = orb::Clock::Steady();
  if (tsStart == TimePoint{}) tsStart = now;
  numSamples = orb::CheckedAdd<uint32_t>(numSamples, 1);
  tsEnd = now;
  if (!IsWithinWindow(now)) CloseWindow(now);
  return 0;
}

void KPI::ResetWindow(TimePoint now) {
  closedSamples = orb::CheckedAdd<uint64_t>(closedSamples, numSamples);
  uncountedSamples =
      orb::CheckedAdd<uint64_t>(uncountedSamples, orb::CheckedSub<uint32_t>(numSamples, counted));
  counted = 0;
  numSamples = 0;
  tsStart = now;
  tsEnd = now;
}

void KPI::fillMeta(orbtr::MetaData* meta) const {
  meta->set_kpi_id(cfg.kpi_id());
  meta->set_ts_start(Tenths(tsStart));
  meta->set_ts_end(Tenths(tsEnd));
  meta->set_num_samples(numSamples);
}

int64_t KPI::Tenths(TimePoint time) { return Nanoseconds(time) / kNanosecondsPerTenth; }

int KPI::WriteWindow(orbtr::KPIData& data) {
  // Counts after the write: a write that throws for lack of memory has written nothing.
  const int result = serializer->Write(data, kpiId);
  repeatedSamples = orb::CheckedAdd<uint64_t>(repeatedSamples, counted);
  counted = numSamples;
  records = orb::CheckedAdd<uint64_t>(records, 1);
  return result;
}

orb::KpiSamples KPI::CountSamples() const {
  orb::KpiSamples samples;
  samples.logged = orb::CheckedAdd<uint64_t>(closedSamples, numSamples);
  samples.repeated = repeatedSamples;
  samples.records = records;
  samples.open = orb::CheckedSub<uint32_t>(numSamples, counted);
  samples.lost[orb::LossCause::kNoRecord] = uncountedSamples;
  return samples;
}

// A record that the serializer refuses is lost, and the window ends. When there is no memory
// to make the record, Serialize throws: the window stays, and the next sample tries again.
void KPI::CloseWindow(TimePoint now) {
  Serialize();
  ResetAggregates();
  ResetWindow(now);
}
