// A KPI that summarises the values of a window: minimum, maximum, mean,
// deviation and the straight line through value over wall-clock seconds.
//
// Two windows overlap. The base class closes one and then resets the
// aggregates; the gauge closes one of its own, by the wall clock or by count,
// and seeds the next with the very sample that closed it. Both write a record.
//
// Values are read as signed. Sums and products that no longer fit abort.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "kpi/kpi.h"

class Gauge : public KPI {
 public:
  Gauge(const KPICfg& cfg, KPISerializer* serializer);

  int Aggregate(unsigned int value) override;
  // The sums stay: the next sample sets them anew.
  void ResetAggregates() override;
  bool validCfg() override;
  // Writes nothing for a window of fewer than two samples.
  int Serialize() override;

  // Takes one value at wall-clock second ts.
  void NewTimedSample(long long ts, int value);
  // Counts a sample at wall-clock second ts. 1 when that fills the gauge's window, else 0.
  int SampleAdd(long long ts);
  // Writes the window's fitted line to descriptor 1, one line a sample, without
  // waiting: what a full or closed standard output does not take is dropped.
  void Print() const;

  bool TIMEBASED() const { return mode == kTimeBased; }
  bool SAMPLEBASED() const { return mode == kSampleBased; }

 protected:
  static constexpr uint32_t kTimeBased = 0x1234;
  static constexpr uint32_t kSampleBased = 0x4321;

  float avg = 0;
  int32_t max = std::numeric_limits<int32_t>::min();
  int32_t min = std::numeric_limits<int32_t>::max();
  float stdev = 0;         // As of the last record.
  int32_t timeSpan = 0;    // Time based: the limit. Else seconds from refTs to the last sample.
  int32_t sampleSpan = 0;  // Sample based: the limit. Else samples so far.
  int64_t refTs = 0;       // Wall-clock second from which the line's time axis counts.
  int32_t N = 0;           // Samples in the sums.
  int64_t sumY = 0, sumX = 0, sumXY = 0, sumXX = 0, sumYY = 0;  // X seconds from refTs, Y values.
  float b0 = 0, b1 = 0;  // Offset and slope as of the last record.
  uint32_t mode = kSampleBased;
  uint32_t tsCount = 0;  // Timestamps since the last reset.
  uint32_t tsIndex = 0;  // Timestamps since the gauge's window opened.
  // For Print only: the seconds of the first tsCapacity samples of the window,
  // each second once, beside the index of its first sample.
  std::vector<int64_t> tsArray;
  std::vector<uint32_t> tsFirst;
  uint32_t tsCapacity = 0;

 private:
  bool IsFirstSample() const;
  void StoreTimestamp(int64_t ts);
  void StartWindow(int64_t ts, int32_t value);
  void AddToSums(int64_t dt, int32_t value);
  void CloseGaugeWindow(int64_t ts);
  void SeedWindow(int64_t ts, int32_t value);
  void FitLine();
  int64_t Variance() const;
  void FillStatistics(orbtr::Gauge* record);
};
