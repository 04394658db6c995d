// Tested by tests/reader/record_printer_test.cpp.
#include "reader/histogram_layout.h"

#include <fmt/format.h>

#include <algorithm>

namespace orb::reader {

int64_t ConfiguredBuckets(const HistogramConfig& config) {
  return int64_t{config.bucket_bounds_size()} - 1 + (config.overflow_bucket() ? 1 : 0) +
         (config.underflow_bucket() ? 1 : 0);
}

HistogramLayout LayoutOf(const HistogramConfig& config) {
  HistogramLayout layout;
  const int64_t buckets = ConfiguredBuckets(config);
  const auto& bounds = config.bucket_bounds();
  layout.fallback = buckets < 1 || buckets > kBucketsMax;
  if (layout.fallback || bounds.empty()) {
    layout.labels = {"all values"};
    return layout;
  }
  if (config.underflow_bucket()) layout.labels.push_back(fmt::format("(-inf,{}]", bounds[0]));
  // A value belongs to the first bound that it does not exceed, so a bound that
  // is not above all before it ends a bucket that nothing reaches.
  int32_t highest = bounds[0];
  for (int i = 1; i < bounds.size(); ++i) {
    layout.labels.push_back(bounds[i] > highest ? fmt::format("({},{}]", highest, bounds[i])
                                                : "empty");
    highest = std::max(highest, bounds[i]);
  }
  if (config.overflow_bucket()) layout.labels.push_back(fmt::format("({},+inf)", highest));
  layout.clamps_below = !config.underflow_bucket();
  layout.clamps_above = !config.overflow_bucket();
  return layout;
}

}  // namespace orb::reader
