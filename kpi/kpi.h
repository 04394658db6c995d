// One configured metric of a running campaign: takes samples, aggregates them
// over a window of time or of sample count, and hands each window's record to
// the session's serializer.
//
// No lock of its own: the collector serializes all calls into a KPI.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "ledger/kpi_samples.h"
#include "proto/kpi_data.pb.h"
#include "proto/ltc_campaign.pb.h"
#include "utility/checked.h"
#include "utility/clock.h"

class KPISerializer;

class KPI {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // Copies cfg; the serializer is borrowed and outlives the KPI.
  KPI(const KPICfg& cfg, KPISerializer* serializer);

  // The KPI that cfg asks for, or null: unknown type or subtype, or a
  // configuration beyond the limits of its kind.
  static std::unique_ptr<KPI> Create(const KPICfg& cfg, KPISerializer* serializer);

  // Folds one value into the running aggregates. 0: accepted and counted.
  virtual int Aggregate(unsigned int value) = 0;
  virtual void ResetAggregates() = 0;
  virtual bool validCfg() = 0;
  // Hands the current window's record to the serializer and returns its
  // result; 0 when there is nothing to write.
  virtual int Serialize() = 0;
  virtual ~KPI() = default;

  KPI(const KPI&) = delete;
  KPI& operator=(const KPI&) = delete;

  // One sample. The sample that finds its window full opens the next. Always 0.
  int AddSample(unsigned int value);
  // One sample without a value; the sample that fills the window closes it. Always 0.
  int AddSample();

  bool IsWithinWindow(TimePoint now) const;
  // Restarts the window at `now`; the aggregates stay. Samples that no record
  // counts are lost.
  void ResetWindow(TimePoint now);
  void fillMeta(orbtr::MetaData* meta) const;
  void setKPIId(unsigned int id) { kpiId = id; }
  KPIType GetType() const { return cfg.type(); }
  const KPICfg& config() const { return cfg; }
  // What became of the samples so far.
  virtual orb::KpiSamples CountSamples() const;

 protected:
  // What records carry: tenths of a second of the monotonic clock.
  static int64_t Tenths(TimePoint time);
  // For log lines: nanoseconds of the monotonic clock.
  static long Nanoseconds(TimePoint time);

  // Hands over a record whose metadata counts the open window's samples so far.
  // The serializer's result.
  int WriteWindow(orbtr::KPIData& data);

  KPICfg cfg;
  uint32_t numSamples = 0;
  TimePoint tsStart{};        // First sample of the window; the epoch means none yet.
  TimePoint tsEnd{};          // Latest accepted sample.
  KPISerializer* serializer;  // Borrowed.
  uint32_t kpiId = 0;         // Routes records to the LicSNs of this KPI.

 private:
  static constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;

  // Hands the window over and opens the next one at `now`.
  void CloseWindow(TimePoint now);

  // Counted when a window closes or is written, never when a sample comes.
  uint32_t counted = 0;  // Samples of the open window that a record counts.
  uint64_t closedSamples = 0;
  uint64_t repeatedSamples = 0;
  uint64_t uncountedSamples = 0;  // Closed without a record that counts them.
  uint64_t records = 0;
};

// Here, so that the hot path is one function but for the virtual call.

inline long KPI::Nanoseconds(TimePoint time) { return time.time_since_epoch().count(); }

inline bool KPI::IsWithinWindow(TimePoint now) const {
  switch (cfg.agg_window_oneof_case()) {
    case KPICfg::kTimeWindow: {
      const int64_t elapsed_ns = orb::CheckedSub<int64_t>(Nanoseconds(now), Nanoseconds(tsStart));
      return elapsed_ns / kNanosecondsPerMillisecond < int64_t{cfg.time_window()};
    }
    case KPICfg::kSampleWindow:
      return cfg.sample_window() > numSamples;
    default:
      return false;
  }
}

inline int KPI::AddSample(unsigned int value) {
  const TimePoint now = orb::Clock::Steady();
  if (tsStart == TimePoint{}) tsStart = now;
  if (!IsWithinWindow(now)) CloseWindow(now);
  if (Aggregate(value) != 0) return 0;
  tsEnd = now;
  numSamples = orb::CheckedAdd<uint32_t>(numSamples, 1);
  return 0;
}
