#include "collector/conf.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace {

using orb::LogCapture;

struct Case {
  const char* name;
  const char* text;
  const char* key;
  int32_t Conf::*value;
  int32_t want;
  int32_t ignored_zero_default;  // 0: nothing is ignored.
};

const Case kCases[] = {
    {"plain", "nof_kpis_max=7\n", "nof_kpis_max", &Conf::nof_kpis_max, 7, 0},
    {"no line feed at the end", "register_max_retries = 3", "register_max_retries",
     &Conf::register_max_retries, 3, 0},
    {"blanks and tabs", "  time_threshold_max_sec\t =\t600  \r\n", "time_threshold_max_sec",
     &Conf::time_threshold_max_sec, 600, 0},
    {"zero keeps the default", "nof_kpis_max=0\n", "nof_kpis_max", &Conf::nof_kpis_max, 1024, 1024},
    {"text reads as zero", "blob_segments_optimized=off\n", "blob_segments_optimized",
     &Conf::blob_segments_optimized, 1, 1},
    {"zero keeps an earlier line", "blob_size_min_bytes=8\nblob_size_min_bytes=0\n",
     "blob_size_min_bytes", &Conf::blob_size_min_bytes, 8, 4},
    {"last line wins", "blob_size_max_bytes=8\nblob_size_max_bytes=9\n", "blob_size_max_bytes",
     &Conf::blob_size_max_bytes, 9, 0},
    {"comment", " \t#hist_nof_buckets_max=5\n", "hist_nof_buckets_max", &Conf::hist_nof_buckets_max,
     1024, 0},
    {"text behind the number", "blob_sample_rate_max=5 # five\n", "blob_sample_rate_max",
     &Conf::blob_sample_rate_max, 5, 0},
    {"keys are case-sensitive", "NOF_KPIS_MAX=5\n", "nof_kpis_max", &Conf::nof_kpis_max, 1024, 0},
    {"negative", "register_retry_wait_sec=-2\n", "register_retry_wait_sec",
     &Conf::register_retry_wait_sec, -2, 0},
    {"empty key and no separator", "=5\nnof_kpis_max 5\n\n \t\n", "nof_kpis_max",
     &Conf::nof_kpis_max, 1024, 0},
    {"first separator splits", "size_threshold_min_bytes=7=8\n", "size_threshold_min_bytes",
     &Conf::size_threshold_min_bytes, 7, 0},
};

TEST(ConfTest, LinesDecideValues) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    orb::test::TempDir dir;
    ASSERT_TRUE(orb::test::WriteFile(dir.path() + "/orb_sdk.conf", c.text));
    LogCapture log;
    Conf::Load(dir.path() + "/");
    EXPECT_EQ(Conf::Get().*c.value, c.want);
    const std::string key = c.key;
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_INFO, "orb_sdk", "Conf: " + key + " = " + std::to_string(c.want)));
    EXPECT_EQ(log.Count("ignore value 0"), c.ignored_zero_default != 0 ? 1u : 0u);
    if (c.ignored_zero_default != 0) {
      EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "orb_sdk",
                          "ignore value 0 for " + key + " from conf_file - using default value " +
                              std::to_string(c.ignored_zero_default)));
    }
    EXPECT_FALSE(log.Contains("cannot open"));
  }
}

TEST(ConfTest, DefaultsAreLoggedInOrderWithoutFile) {
  LogCapture log;
  Conf::Load("n/");
  const char* const want[] = {"register_max_retries = 12",
                              "register_retry_wait_sec = 5",
                              "blob_size_min_bytes = 4",
                              "blob_size_max_bytes = 2097152",
                              "blob_sample_rate_max = 1000",
                              "size_threshold_min_bytes = 100",
                              "size_threshold_max_bytes = 4194304",
                              "time_threshold_min_sec = 1",
                              "time_threshold_max_sec = 86400",
                              "cfg_payload_max_bytes = 1048576",
                              "nof_kpis_max = 1024",
                              "hist_nof_buckets_max = 1024",
                              "blob_segments_optimized = 1"};
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), std::size(want)) << log.Dump();
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].text, std::string("Conf: ") + want[i]);
  }
}

TEST(ConfTest, MissingFileIsNamedFromItsEighteenthCharacter) {
  LogCapture log;
  Conf::Load("nodi/");  // 17 characters with the file name.
  EXPECT_FALSE(log.Contains("cannot open"));
  Conf::Load("nodir/");
  EXPECT_TRUE(
      log.Has(ANDROID_LOG_INFO, "orb_sdk", "cannot open config file f - using default config"));
}

TEST(ConfTest, PublishedValuesOutliveTheirSuccessors) {
  orb::test::TempDir dir;
  ASSERT_TRUE(orb::test::WriteFile(dir.path() + "/orb_sdk.conf", "nof_kpis_max = 7\n"));
  const Conf& before = Conf::Get();
  const int32_t value = before.nof_kpis_max;
  Conf::Load(dir.path() + "/");
  const Conf& seven = Conf::Get();
  EXPECT_EQ(seven.nof_kpis_max, 7);
  EXPECT_EQ(before.nof_kpis_max, value);
  Conf::Load("n/");
  EXPECT_EQ(Conf::Get().nof_kpis_max, value);
  Conf::Load(dir.path() + "/");
  EXPECT_EQ(&Conf::Get(), &seven) << "equal values are kept twice";
}

TEST(ConfTest, TrimsAllWhitespace) {
  EXPECT_EQ(Conf::trim(" \n\r\t\f\va b\v \t"), "a b");
  EXPECT_EQ(Conf::trim(" \n\r\t\f\v"), "");
  EXPECT_EQ(Conf::trim(""), "");
}

}  // namespace
