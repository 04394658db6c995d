// A KPI that summarises the values of a window: minimum, maximum, mean, deviation, and the
// straight line that fits the values over wall-clock seconds best.
//
// A gauge has two windows at the same time, and both write records. The base class closes
// the one and then resets the aggregates. The gauge closes its own by the wall clock or by
// count, and the sample that closes it is also the first of the next.
//
// Values are read as signed. A sum or product that no longer fits aborts.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "kpi/kpi.h"

class Gauge : public KPI {
 public:
  Gauge(const KPICfg& cfg, KPISerializer* serializer);

  int Aggregate(unsigned int value) override;
  // Leaves the sums as they are, because the next sample sets them.
  void ResetAggregates() override;
  bool validCfg() override;
  // Writes nothing for a window of fewer than two samples.
  int Serialize() override;

  // Takes one value at wall-clock second ts.
  void NewTimedSample(long long ts, int value);
  // Counts a sample at wall-clock second ts. 1 when the gauge's own window is full now, else 0.
  int SampleAdd(long long ts);
  // Writes the fitted line of the window to standard output, one line for each sample. It
  // never waits: lines that a full or closed output does not take are dropped.
  void Print() const;

  bool TIMEBASED() const { return mode == kTimeBased; }
  bool SAMPLEBASED() const { return mode == kSampleBased; }

 protected:
  static constexpr uint32_t kTimeBased = 0x1234;
  static constexpr uint32_t kSampleBased = 0x4321;

  float avg = 0;
  int32_t max = std::numeric_limits<int32_t>::min();
  int32_t min = std::numeric_limits<int32_t>::max();
  float stdev = 0;         // The value in the last record.
  int32_t timeSpan = 0;    // Time based: the limit. Else seconds from refTs to the last sample.
  int32_t sampleSpan = 0;  // Sample based: the limit. Else samples so far.
  int64_t refTs = 0;       // Wall-clock second at which the time axis of the line is 0.
  int32_t N = 0;           // Samples in the sums.
  int64_t sumY = 0, sumX = 0, sumXY = 0, sumXX = 0, sumYY = 0;  // X seconds from refTs, Y values.
  float b0 = 0, b1 = 0;  // Offset and slope in the last record.
  uint32_t mode = kSampleBased;
  uint32_t tsCount = 0;  // Timestamps since the last reset.
  uint32_t tsIndex = 0;  // Timestamps since the gauge's window opened.
  // Only Print reads these two: each second of the first tsCapacity samples of the window
  // once, and the index of the first sample of that second.
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
