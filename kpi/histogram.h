// A KPI that counts how many values of a window fell into each bucket.
//
// The configuration gives S edges, each the inclusive upper bound of the bucket
// that ends at it, and up to two open buckets. A value without a bucket of its
// own counts in the last one.
#pragma once

#include <cstdint>
#include <vector>

#include "kpi/kpi.h"

class Histogram : public KPI {
 public:
  // A layout of no bucket or of more than 255 falls back to a single bucket.
  Histogram(const KPICfg& cfg, KPISerializer* serializer);

  // The bucket of a value, read as signed: 0 to nofBuckets - 1.
  unsigned int findBucketId(unsigned int value) const;

  // Aborts when the bucket's count no longer fits.
  int Aggregate(unsigned int value) override;
  void ResetAggregates() override;
  // At most hist_nof_buckets_max edges.
  bool validCfg() override;
  // Writes nothing for a window without samples.
  int Serialize() override;

 protected:
  uint32_t nofBuckets;
  std::vector<uint32_t> buckets;  // [nofBuckets] counts.
};
