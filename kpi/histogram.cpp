// Tested by tests/kpi/histogram_test.cpp.
#include "kpi/histogram.h"

#include <algorithm>
#include <cstdlib>

#include "proto/kpi_kinds.h"
#include "serializer/kpi_serializer.h"
#include "utility/checked.h"
#include "utility/conf.h"
#include "utility/log.h"

namespace {

constexpr uint32_t kNoBucket = 0xFFFFFFFF;
constexpr uint32_t kBucketsMax = 255;

// Two edges enclose one bucket. Without any edge the difference wraps, and the result is 1.
uint32_t CountBuckets(const HistogramConfig& layout) {
  uint32_t count = static_cast<uint32_t>(layout.bucket_bounds_size()) - 1;
  count += layout.overflow_bucket() ? 1 : 0;
  count += layout.underflow_bucket() ? 1 : 0;
  return count == 0 || count > kBucketsMax ? 1 : count;
}

}  // namespace

Histogram::Histogram(const KPICfg& cfg, KPISerializer* serializer)
    : KPI(cfg, serializer), nofBuckets(CountBuckets(cfg.h_cfg())), buckets(nofBuckets) {}

unsigned int Histogram::findBucketId(unsigned int value) const {
  const HistogramConfig& layout = cfg.h_cfg();
  const auto& edges = layout.bucket_bounds();
  const auto edge = std::find_if(edges.begin(), edges.end(), [value](int32_t bound) {
    return bound >= static_cast<int32_t>(value);
  });
  const uint32_t edge_count = static_cast<uint32_t>(edges.size());
  uint32_t id = static_cast<uint32_t>(edge - edges.begin());
  // For a value at or below the first edge this wraps to kNoBucket.
  if (!layout.underflow_bucket() && id < edge_count) --id;
  if (!layout.overflow_bucket() && id == edge_count) id = kNoBucket;
  if (nofBuckets == 0) std::abort();
  return std::min(id, nofBuckets - 1);
}

int Histogram::Aggregate(unsigned int value) {
  const uint32_t id = findBucketId(value);
  if (id == kNoBucket) return static_cast<int>(kNoBucket);
  buckets[id] = orb::CheckedAdd<uint32_t>(buckets[id], 1);
  return 0;
}

void Histogram::ResetAggregates() { std::fill(buckets.begin(), buckets.end(), 0); }

bool Histogram::validCfg() {
  return cfg.h_cfg().bucket_bounds_size() <= Conf::Get().hist_nof_buckets_max;
}

int Histogram::Serialize() {
  LOGI("Histogram::Serialize(), numSamples=%d, tsStart=%ld, tsEnd=%ld",
       static_cast<int>(numSamples), Nanoseconds(tsStart), Nanoseconds(tsEnd));
  if (numSamples == 0) {
    LOGI("numSamples < 1, so skipping");
    return 0;
  }
  orbtr::KPIData& data = serializer->EmptyRecord(orb::KpiKind::kHistogram);
  orbtr::Histogram* histogram = data.mutable_histograms(0);
  fillMeta(histogram->mutable_meta());
  histogram->mutable_bucket_counts()->Add(buckets.begin(), buckets.end());
  return WriteWindow(data);
}
