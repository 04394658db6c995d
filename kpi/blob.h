// A KPI of byte strings: every one that is logged becomes a record at once.
#pragma once

#include <cstdint>
#include <vector>

#include "kpi/kpi.h"
#include "orb_sdk.h"

class Blob : public KPI {
 public:
  using KPI::KPI;

  // Writes one record of [len] bytes, borrowed for the call. The serializer's
  // result, or -1 when len exceeds the configured size of a sample or 2 GiB.
  int LogBuf(const unsigned char* buf, uint32_t len);

  // Writes one record of [count] segments, each as its length, 32 bits in host
  // order, and its bytes. The size of a sample does not limit it. The
  // serializer's result, or -1 when there is no memory, the segments are 2 GiB
  // together, one has a length and no bytes, or they grow during the call.
  //
  // With blob_segments_optimized the serializer encodes the segments itself;
  // one that cannot answers -1, and the record is lost.
  int LogBufSegs(const kiv_blob_segment_t* segs, uint32_t count);

  int Aggregate(unsigned int value) override;
  void ResetAggregates() override;
  // Size and rate of samples within the blob limits of the configuration file.
  bool validCfg() override;
  // Nothing is left to write when a window closes.
  int Serialize() override;
  // A sample is a call here: one record, or lost.
  orb::KpiSamples CountSamples() const override { return samples; }

 protected:
  std::vector<std::vector<uint8_t>> pending;  // Unused so far: records are written at once.

 private:
  // False, logged and booked, when no record can hold so many bytes.
  bool FitsRecord(uint32_t bytes, const char* operation);
  int WriteGathered(const kiv_blob_segment_t* segs, uint32_t count);
  int WriteRecord(const void* bytes, uint32_t len);

  orb::KpiSamples samples;
};
