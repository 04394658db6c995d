// A KPI that counts how many values of a window fell into each bucket.
//
// The configuration has edges, and may ask for a bucket below the first edge and one above
// the last. An edge is the inclusive upper bound of the bucket that ends there. A value
// that fits no bucket counts in the last one.
#pragma once

#include <cstdint>
#include <vector>

#include "kpi/kpi.h"

class Histogram : public KPI {
 public:
  // A configuration of no bucket, or of more than 255, gives a single bucket.
  Histogram(const KPICfg& cfg, KPISerializer* serializer);

  // Returns the index of the value's bucket, 0 to nofBuckets - 1. Reads the value as signed.
  unsigned int findBucketId(unsigned int value) const;

  // Aborts when the bucket's count no longer fits.
  int Aggregate(unsigned int value) override;
  void ResetAggregates() override;
  // True for at most hist_nof_buckets_max edges.
  bool validCfg() override;
  // Writes nothing for a window without samples.
  int Serialize() override;

 protected:
  uint32_t nofBuckets;
  std::vector<uint32_t> buckets;  // [nofBuckets] counts.
};
