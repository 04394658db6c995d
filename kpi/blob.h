// A KPI of byte strings. Each one that is logged becomes a record at once.
#pragma once

#include <cstdint>
#include <vector>

#include "kpi/kpi.h"
#include "orb_sdk.h"

class Blob : public KPI {
 public:
  using KPI::KPI;

  // Writes one record of [len] bytes, borrowed for the call. Returns what the serializer
  // returns, or -1 when len exceeds the configured size of a sample or 2 GiB.
  int LogBuf(const unsigned char* buf, uint32_t len);

  // Writes one record of [count] segments. Each is written as its length, 32 bits in host
  // order, and its bytes. The configured size of a sample is no limit here. Returns what the
  // serializer returns, or -1 when there is no memory, the segments are 2 GiB together, one
  // has a length and no bytes, or they grow during the call.
  //
  // With blob_segments_optimized the serializer encodes the segments itself. A serializer
  // that cannot do so returns -1, and the record is lost.
  int LogBufSegs(const kiv_blob_segment_t* segs, uint32_t count);

  int Aggregate(unsigned int value) override;
  void ResetAggregates() override;
  // True when size and rate of samples are within the blob limits of the configuration file.
  bool validCfg() override;
  // Writes nothing: every sample was written when it was logged.
  int Serialize() override;
  // Every call is a sample, which became one record or was lost.
  orb::KpiSamples CountSamples() const override { return samples; }

 protected:
  std::vector<std::vector<uint8_t>> pending;  // Unused so far: records are written at once.

 private:
  // When no record can hold so many bytes: logs that, counts the sample as lost, false.
  bool FitsRecord(uint32_t bytes, const char* operation);
  int WriteGathered(const kiv_blob_segment_t* segs, uint32_t count);
  int WriteRecord(const void* bytes, uint32_t len);

  orb::KpiSamples samples;
};
