#include "kpi/histogram.h"

#include <algorithm>
#include <numeric>

#include "tests/kpi/kpi_test_support.h"
#include "tests/support/scoped_conf.h"

namespace orb::test {
namespace {

class HistogramProbe : public Histogram {
 public:
  using Histogram::buckets;
  using Histogram::Histogram;
  using Histogram::nofBuckets;
};

KPICfg HistogramCfg(const std::vector<int32_t>& edges, bool underflow, bool overflow) {
  KPICfg cfg = NumericCfg(HISTOGRAM);
  *cfg.mutable_h_cfg() = HistogramLayout(edges, underflow, overflow);
  return cfg;
}

// [count] ascending edges.
std::vector<int32_t> Edges(int count) {
  std::vector<int32_t> edges(count);
  std::iota(edges.begin(), edges.end(), 0);
  return edges;
}

TEST(HistogramTest, PutsValuesIntoBuckets) {
  const struct {
    const char* name;
    std::vector<int32_t> edges;
    bool underflow;
    bool overflow;
    const char* want;  // The bucket of each value.
  } cases[] = {
      {"both open ends", {10, 20, 30}, true, true, "000111222333"},
      {"closed: outsiders count in the last", {10, 20, 30}, false, false, "111000111111"},
      {"underflow only", {10, 20, 30}, true, false, "000111222222"},
      {"overflow only", {10, 20, 30}, false, true, "222000111222"},
      {"negative edges", {-5, 0, 5}, true, true, "023333333333"},
      {"descending edges: the first that fits", {30, 20, 10}, true, true, "000000000333"},
      {"no edges", {}, false, false, "000000000000"},
      {"no edges, both open ends", {}, true, true, "000000000000"},
  };
  for (const auto& c : cases) {
    const HistogramProbe histogram(HistogramCfg(c.edges, c.underflow, c.overflow), nullptr);
    std::string got;
    for (const int32_t value : {kMin, 5, 10, 11, 15, 20, 21, 25, 30, 31, 35, kMax}) {
      got += std::to_string(histogram.findBucketId(static_cast<unsigned int>(value)));
    }
    EXPECT_EQ(got, c.want) << c.name;
  }
}

TEST(HistogramTest, BucketCountFallsBackToOne) {
  const struct {
    int edges;
    bool underflow;
    bool overflow;
    uint32_t want;
  } cases[] = {
      {0, false, false, 1}, {0, true, false, 1},      {0, true, true, 1},    {1, false, false, 1},
      {1, true, true, 2},   {256, false, false, 255}, {256, true, false, 1}, {254, true, true, 255},
      {255, true, true, 1}, {300, true, true, 1},
  };
  for (const auto& c : cases) {
    const HistogramProbe histogram(HistogramCfg(Edges(c.edges), c.underflow, c.overflow), nullptr);
    EXPECT_EQ(histogram.nofBuckets, c.want) << c.edges;
    EXPECT_EQ(histogram.buckets.size(), c.want) << c.edges;
  }
}

TEST(HistogramTest, EdgeLimitComesFromTheConfigurationFile) {
  for (const auto& [text, edges_max] : {std::pair{"", 1024},
                                        {"hist_nof_buckets_max = 3\n", 3},
                                        {"hist_nof_buckets_max = -1\n", -1}}) {
    const ScopedConf conf(text);
    for (int edges = std::max(edges_max, 0); edges <= edges_max + 1; ++edges) {
      EXPECT_EQ(KPI::Create(HistogramCfg(Edges(edges), true, true), nullptr) != nullptr,
                edges <= edges_max)
          << text << edges;
    }
  }
}

TEST(HistogramTest, OverflowAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  HistogramProbe histogram(HistogramCfg({10}, true, true), nullptr);
  histogram.buckets[1] = 0xFFFFFFFE;
  EXPECT_EQ(histogram.Aggregate(11), 0);
  EXPECT_ABORT(histogram.Aggregate(11));
  histogram.nofBuckets = 0;
  EXPECT_ABORT(static_cast<void>(histogram.findBucketId(1)));
}

}  // namespace
}  // namespace orb::test
