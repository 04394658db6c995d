#include "utility/conf.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace {

using orb::LogCapture;

struct Setting {
  std::string key;
  int32_t Conf::*value;
  int32_t initial;
};

// In the order in which they are logged.
const std::vector<Setting> kSettings = {
    {"register_max_retries", &Conf::register_max_retries, 12},
    {"register_retry_wait_sec", &Conf::register_retry_wait_sec, 5},
    {"blob_size_min_bytes", &Conf::blob_size_min_bytes, 4},
    {"blob_size_max_bytes", &Conf::blob_size_max_bytes, 2097152},
    {"blob_sample_rate_max", &Conf::blob_sample_rate_max, 1000},
    {"size_threshold_min_bytes", &Conf::size_threshold_min_bytes, 100},
    {"size_threshold_max_bytes", &Conf::size_threshold_max_bytes, 4194304},
    {"time_threshold_min_sec", &Conf::time_threshold_min_sec, 1},
    {"time_threshold_max_sec", &Conf::time_threshold_max_sec, 86400},
    {"cfg_payload_max_bytes", &Conf::cfg_payload_max_bytes, 1048576},
    {"nof_kpis_max", &Conf::nof_kpis_max, 1024},
    {"hist_nof_buckets_max", &Conf::hist_nof_buckets_max, 1024},
    {"blob_segments_optimized", &Conf::blob_segments_optimized, 1},
};

void Load(const char* text) {
  const orb::test::TempDir dir;
  ASSERT_TRUE(orb::test::WriteFile(dir.path() + "/orb_sdk.conf", text));
  Conf::Load(dir.path() + "/");
}

TEST(ConfTest, LinesDecideValues) {
  const struct {
    const char* text;
    const char* key;  // The only one that is no longer initial.
    int32_t want;
    const char* ignored = nullptr;  // A key that was given 0.
  } cases[] = {
      {"", "", 0},
      {"register_max_retries = 3", "register_max_retries", 3},
      {"  time_threshold_max_sec\t\f =\v600  \r\n", "time_threshold_max_sec", 600},
      {"nof_kpis_max=0\n", "", 0, "nof_kpis_max"},
      {"blob_segments_optimized=off\n", "", 0, "blob_segments_optimized"},
      {"blob_size_min_bytes=8\nblob_size_min_bytes=0\n", "blob_size_min_bytes", 8,
       "blob_size_min_bytes"},
      {"blob_size_max_bytes=8\nblob_size_max_bytes=9\n", "blob_size_max_bytes", 9},
      {" \t#hist_nof_buckets_max=5\n", "", 0},
      {"blob_sample_rate_max=5 # five\n", "blob_sample_rate_max", 5},
      {"NOF_KPIS_MAX=5\n", "", 0},
      {"register_retry_wait_sec=-2\n", "register_retry_wait_sec", -2},
      {"=5\nnof_kpis_max 5\n\n \t\nnof_kpis_max=\n", "", 0, "nof_kpis_max"},
      {"size_threshold_min_bytes=7=8\n", "size_threshold_min_bytes", 7},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const LogCapture log;
    Load(c.text);
    std::string ignored;
    std::string values;
    for (const Setting& setting : kSettings) {
      const int32_t want = setting.key == c.key ? c.want : setting.initial;
      EXPECT_EQ(Conf::Get().*setting.value, want) << setting.key;
      values += "4 orb_sdk: Conf: " + setting.key + " = " + std::to_string(want) + "\n";
      if (c.ignored == nullptr || setting.key != c.ignored) continue;
      ignored = "4 orb_sdk: ignore value 0 for " + setting.key +
                " from conf_file - using default value " + std::to_string(setting.initial) + "\n";
    }
    EXPECT_EQ(log.Dump(), ignored + values);
  }
}

TEST(ConfTest, MissingFileIsNamedFromItsEighteenthCharacter) {
  const LogCapture log;
  Conf::Load("nodi/");  // 17 characters with the file name.
  EXPECT_FALSE(log.Contains("cannot open"));
  Conf::Load("nodir/");
  EXPECT_EQ(log.Lines()[kSettings.size()].text, "cannot open config file f - using default config");
}

TEST(ConfTest, PublishedValuesStayAndAreKeptOnce) {
  Load("nof_kpis_max = 7\n");
  const Conf& seven = Conf::Get();
  Load("");
  EXPECT_EQ(seven.nof_kpis_max, 7);
  Load("nof_kpis_max = 7\n");
  EXPECT_EQ(&Conf::Get(), &seven);
  Load("");
}

}  // namespace
