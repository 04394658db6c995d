// One metric of a running campaign. It takes samples, aggregates them over a window of time
// or of sample count, and hands the record of each window to the session's serializer.
//
// A KPI has no lock: the collector makes one call at a time.
#pragma once

#include <algorithm>
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

  // Copies cfg and borrows the serializer, which must outlive the KPI.
  KPI(const KPICfg& cfg, KPISerializer* serializer);

  // Returns the KPI that cfg asks for, or null when its type or subtype is unknown or its
  // configuration is beyond the limits of its kind.
  static std::unique_ptr<KPI> Create(const KPICfg& cfg, KPISerializer* serializer);

  // Adds one value to the aggregates. 0: the value is accepted and counts.
  virtual int Aggregate(unsigned int value) = 0;
  virtual void ResetAggregates() = 0;
  virtual bool validCfg() = 0;
  // Hands the current window's record to the serializer and returns its
  // result; 0 when there is nothing to write.
  virtual int Serialize() = 0;
  virtual ~KPI() = default;

  KPI(const KPI&) = delete;
  KPI& operator=(const KPI&) = delete;

  // Takes one sample. When the window is full, closes it, and the sample opens the next
  // one. Always 0. Records and counts are those of the exact clock, though it is not
  // always read.
  int AddSample(unsigned int value);
  // Takes one sample without a value. When this sample fills the window, closes it. Always 0.
  int AddSample();

  bool IsWithinWindow(TimePoint now) const;
  // Starts a new window at `now` and leaves the aggregates as they are. Samples of the old
  // window that no record counts are lost.
  void ResetWindow(TimePoint now);
  void fillMeta(orbtr::MetaData* meta) const;
  void setKPIId(unsigned int id) { kpiId = id; }
  KPIType GetType() const { return cfg.type(); }
  const KPICfg& config() const { return cfg; }
  // What became of the samples so far.
  virtual orb::KpiSamples CountSamples() const;

 protected:
  // Tenths of a second of the monotonic clock, as records have them.
  static int64_t Tenths(TimePoint time);
  // Nanoseconds of the monotonic clock, as log lines have them.
  static long Nanoseconds(TimePoint time);

  // Gives the serializer a record whose metadata counts the samples of the open window so
  // far. Returns what the serializer returns.
  int WriteWindow(orbtr::KPIData& data);

  KPICfg cfg;
  uint32_t numSamples = 0;
  TimePoint tsStart{};        // Time of the window's first sample; the epoch: none yet.
  TimePoint tsEnd{};          // Time of the latest accepted sample.
  KPISerializer* serializer;  // Borrowed.
  uint32_t kpiId = 0;         // The serializer finds the owners of the records by it.

 private:
  static constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;

  // Writes the record of the window and opens the next window at `now`.
  void CloseWindow(TimePoint now);
  // Sets the three below: how long a rough clock tells as much as the exact one.
  void BeSureFrom(TimePoint now);
  // AddSample() by the exact clock.
  int AddExactly(unsigned int value);

  // A sample while the rough clock is before sureUntil, and the window has fewer than
  // sureSamples, is certainly in the window, and in the tenth of a second of sureFrom.
  TimePoint sureFrom{};
  TimePoint sureUntil{};
  uint32_t sureSamples = 0;

  // These change when a window is written or closes. A sample alone changes none of them.
  uint32_t counted = 0;  // Samples of the open window that a record counts.
  uint64_t closedSamples = 0;
  uint64_t repeatedSamples = 0;
  uint64_t uncountedSamples = 0;  // Samples of closed windows that no record counts.
  uint64_t records = 0;
};

// These are in the header so that a sample costs one call and one virtual call.

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
  if (numSamples >= sureSamples) return AddExactly(value);
  const TimePoint rough = orb::Clock::Rough();
  if (rough >= sureUntil) return AddExactly(value);
  if (Aggregate(value) != 0) return 0;
  tsEnd = std::max(rough, sureFrom);
  numSamples = orb::CheckedAdd<uint32_t>(numSamples, 1);
  return 0;
}
