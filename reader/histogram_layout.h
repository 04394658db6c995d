// What the buckets of a histogram KPI hold, worked out from its configuration.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "proto/ltc_campaign.pb.h"

namespace orb::reader {

constexpr int64_t kBucketsMax = 255;

struct HistogramLayout {
  // The range of each bucket: "(10,20]", "(-inf,10]", "empty", "all values".
  std::vector<std::string> labels;
  // The layout asked for no bucket or for more than kBucketsMax: one takes all.
  bool fallback = false;
  // Values that have no bucket count in the last one.
  bool clamps_below = false;  // Those at or below the first bound.
  bool clamps_above = false;  // Those above the last.

  bool clamps() const { return clamps_below || clamps_above; }
};

// Buckets that the configuration asks for, before any fallback; may be negative.
int64_t ConfiguredBuckets(const HistogramConfig& config);

HistogramLayout LayoutOf(const HistogramConfig& config);

}  // namespace orb::reader
