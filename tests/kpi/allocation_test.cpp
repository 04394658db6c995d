// Closing windows allocate nothing once each kind of KPI has closed one.
#include <android/log.h>

#include <cstdlib>
#include <new>

#include "kpi/kpi.h"
#include "tests/kpi/kpi_test_support.h"

namespace {
thread_local uint64_t t_allocations = 0;
}

// This program's own, for the libraries that it links, too.
void* operator new(size_t bytes) {
  ++t_allocations;
  void* const memory = std::malloc(bytes);
  if (memory == nullptr) std::abort();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace orb::test {
namespace {

class CountingSerializer : public FakeSerializer {
 public:
  int Write(orbtr::KPIData& data, unsigned int) override {
    uint8_t bytes[256];
    records += data.SerializeToArray(bytes, sizeof bytes) ? 1 : 0;
    return 0;
  }
  int records = 0;
};

TEST(AllocationTest, AClosingWindowAllocatesNothing) {
  const int before = __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  KPICfg gauge = NumericCfg(GAUGE);
  gauge.mutable_g_cfg()->set_report_min(true);
  gauge.mutable_g_cfg()->set_report_mean(true);
  KPICfg histogram = NumericCfg(HISTOGRAM);
  *histogram.mutable_h_cfg() = HistogramLayout({10, 20, 30}, true, true);
  CountingSerializer serializer;
  for (const KPICfg& cfg : {NumericCfg(COUNTER), gauge, histogram}) {
    SCOPED_TRACE(cfg.sub_type());
    const std::unique_ptr<KPI> kpi = KPI::Create(WithSampleWindow(cfg, 2), &serializer);
    const auto log = [&kpi](int windows) {
      for (int i = 0; i < 2 * windows; ++i) kpi->AddSample(15);
    };
    log(2);
    serializer.records = 0;
    const uint64_t allocations = t_allocations;
    log(100);
    EXPECT_EQ(t_allocations, allocations);
    EXPECT_EQ(serializer.records, 100);
  }
  __android_log_set_minimum_priority(before);
}

}  // namespace
}  // namespace orb::test
