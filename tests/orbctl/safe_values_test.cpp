// The bound that lint computes is the library's own: a window of the largest safe
// value is written, one of the next larger value ends the process.
#include "tools/orbctl/safe_values.h"

#include <google/protobuf/text_format.h>

#include "kpi/kpi.h"
#include "tests/kpi/kpi_test_support.h"
#include "tests/support/fake_clock.h"

namespace orb::orbctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

KPICfg Config(const std::string& text) {
  KPICfg cfg;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString("type: KPI_NUMERIC " + text, &cfg));
  return cfg;
}

// Logs the value as often as a window holds it, and once more, which closes the window.
// The records that were written before and after that last sample.
std::pair<size_t, size_t> LogWindow(const KPICfg& cfg, nanoseconds interval, uint64_t samples,
                                    int64_t value) {
  test::FakeClock clock;
  test::FakeSerializer serializer;
  const std::unique_ptr<KPI> kpi = KPI::Create(cfg, &serializer);
  size_t before = 0;
  int64_t wall_s = 0;
  for (uint64_t i = 0; i <= samples; ++i) {
    const nanoseconds at = interval * static_cast<int64_t>(i);
    const int64_t second = std::chrono::ceil<seconds>(at).count();
    clock.SetSteady(seconds(1) + at);
    clock.AdvanceWall(second - wall_s);
    wall_s = second;
    before = serializer.lines.size();
    kpi->AddSample(static_cast<unsigned int>(value));
  }
  return {before, serializer.lines.size()};
}

TEST(SafeValuesTest, LargestIsTheLibrarysOwn) {
  constexpr int64_t kNone = SafeValues::kNone;
  const struct {
    const char* kpi;
    nanoseconds interval;
    uint64_t samples;
    int64_t largest;
  } kCases[] = {
      {"sample_window: 2 g_cfg {}", seconds(1), 2, 2147483647},
      {"time_window: 60000 g_cfg { report_mean: true }", milliseconds(100), 600, 123985026},
      {"sample_window: 10344 g_cfg { report_min: true }", seconds(5000), 10344, 29860742},
      {"sample_window: 10345 g_cfg { report_max: true }", seconds(5000), 10345, kNone},
      {"time_window: 3000 g_cfg { report_stdev: true }", milliseconds(100), 30, 101233349},
      {"sample_window: 100 g_cfg { report_variance: true }", seconds(1), 100, 30370004},
      {"sample_window: 10000 g_cfg { report_slope: true }", seconds(1), 10000, 18444899},
      {"time_window: 77935000 g_cfg { report_offset: true }", seconds(1), 77935, 38968},
      {"time_window: 77936000 g_cfg { report_slope: true }", seconds(1), 77936, kNone},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.kpi);
    const KPICfg cfg = Config(std::string("sub_type: GAUGE ") + c.kpi);
    const SafeValues safe = SafeValuesOf(cfg, c.interval);
    EXPECT_EQ(safe.samples, c.samples);
    ASSERT_EQ(safe.largest, c.largest);
    EXPECT_FALSE(safe.any);
    testing::internal::CaptureStdout();  // What gauges print.
    for (const int sign : {-1, 1}) {
      if (c.largest != kNone) {
        EXPECT_EQ(LogWindow(cfg, c.interval, c.samples, sign * c.largest),
                  std::pair(size_t{0}, size_t{1}));
      }
      EXPECT_ABORT(LogWindow(cfg, c.interval, c.samples, sign * (c.largest + 1)));
    }
    testing::internal::GetCapturedStdout();
  }
}

// What no test can log.
TEST(SafeValuesTest, LargeWindowsAndOtherKinds) {
  const struct {
    const char* kpi;
    int64_t largest;
    bool any;
  } kCases[] = {
      {"sub_type: GAUGE g_cfg { report_slope: true }", int64_t{1} << 31, true},
      {"sub_type: GAUGE sample_window: 1 g_cfg { report_stdev: true }", int64_t{1} << 31, true},
      {"sub_type: GAUGE sample_window: 2147483648 g_cfg { report_stdev: true }", 1518500249, false},
      {"sub_type: GAUGE time_window: 4294967295 g_cfg { report_slope: true }", 2147483647, false},
      {"sub_type: COUNTER sample_window: 2147483648", 4294967295, true},
      {"sub_type: COUNTER sample_window: 2147483649", 4294967294, false},
      {"sub_type: HISTOGRAM sample_window: 4294967295", 4294967295, true},
      {"sub_type: HISTOGRAM time_window: 4294967295", 4294967295, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.kpi);
    const SafeValues safe = SafeValuesOf(Config(c.kpi), seconds(1));
    EXPECT_EQ(safe.largest, c.largest);
    EXPECT_EQ(safe.any, c.any);
  }
  EXPECT_EQ(
      SafeValuesOf(Config("sub_type: HISTOGRAM time_window: 4294967295"), nanoseconds(500'000))
          .largest,
      SafeValues::kNone);
}

}  // namespace
}  // namespace orb::orbctl
