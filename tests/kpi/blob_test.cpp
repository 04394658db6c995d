#include "kpi/blob.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "tests/kpi/kpi_test_support.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_serializer.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_conf.h"

namespace orb::test {
namespace {

constexpr char kGathered[] = "blob_segments_optimized = 2\n";

KPICfg BlobCfg(uint32_t size_bytes, uint32_t rate = 0) {
  KPICfg cfg;
  cfg.set_kpi_id(kKpiId);
  cfg.set_type(KPI_BLOB);
  cfg.mutable_b_cfg()->set_single_sample_size_threshold_bytes(size_bytes);
  cfg.mutable_b_cfg()->set_sample_rate(rate);
  return cfg;
}

kiv_blob_segment_t Segment(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), static_cast<uint32_t>(text.size())};
}

class BlobTest : public testing::Test {
 protected:
  BlobTest() : blob_(WithSampleWindow(BlobCfg(100), 50), &serializer_) {
    blob_.setKPIId(kRoutingId);
  }
  int LogBuf(const std::string& text) {
    return blob_.LogBuf(reinterpret_cast<const unsigned char*>(text.data()),
                        static_cast<uint32_t>(text.size()));
  }

  LogCapture log_;
  FakeClock clock_;
  FakeSerializer serializer_;
  Blob blob_;
};

TEST(BlobCfgTest, LimitsComeFromTheConfigurationFile) {
  struct Case {
    const char* conf;
    uint32_t size_bytes;
    uint32_t rate;
    bool want;
  };
  const Case kCases[] = {
      {"", 3, 0, false},
      {"", 4, 1000, true},
      {"", 4, 1001, false},
      {"", 2097152, 0, true},
      {"", 2097153, 0, false},
      {"blob_size_min_bytes = 10\nblob_size_max_bytes = 11", 9, 0, false},
      {"blob_size_min_bytes = 10\nblob_size_max_bytes = 11", 11, 0, true},
      // Negative limits are compared as unsigned.
      {"blob_size_min_bytes = -1", 0xFFFFFFFE, 0, false},
      {"blob_size_max_bytes = -1\nblob_sample_rate_max = -1", 0xFFFFFFFF, 0xFFFFFFFF, true},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.conf);
    const ScopedConf conf(c.conf);
    EXPECT_EQ(KPI::Create(BlobCfg(c.size_bytes, c.rate), nullptr) != nullptr, c.want)
        << c.size_bytes << ", " << c.rate;
  }
  KPICfg none;
  none.set_type(KPI_BLOB);
  EXPECT_EQ(KPI::Create(none, nullptr), nullptr);
}

TEST_F(BlobTest, EveryBufferIsARecord) {
  EXPECT_EQ(LogBuf("abc"), 0);
  EXPECT_EQ(LogBuf(std::string(100, 'x')), 0);
  const auto records = serializer_.records();
  ASSERT_EQ(records.size(), 2u);
  // The configuration's id routes, not the one that the owner set.
  EXPECT_EQ(records[0].kpi_id, kKpiId);
  // blobs { meta { 7, 12, 12, 1 } data "abc" }
  EXPECT_EQ(records[0].bytes, std::string("\x2a\x0f\x0a\x08\x08\x07\x10\x0c\x18\x0c\x20\x01\x12\x03"
                                          "abc"));
  EXPECT_EQ(records[1].data.blobs(0).data(), std::string(100, 'x'));
  EXPECT_EQ(records[1].data.blobs(0).meta().num_samples(), 1u);
}

TEST_F(BlobTest, AnOversizedBufferIsRefusedAndNotCounted) {
  EXPECT_EQ(LogBuf(std::string(101, 'x')), -1);
  EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "orb_sdk",
                       "LogBuf: blob size 101 greater than singlesamplesizetresholdbytes 100"))
      << log_.Dump();
  EXPECT_TRUE(serializer_.records().empty());
  LogBuf("next");
  EXPECT_EQ(serializer_.records().at(0).data.blobs(0).meta().num_samples(), 1u);
}

TEST_F(BlobTest, ClosingWindowWritesNothingAndTakesTheCount) {
  blob_.AddSample();
  blob_.AddSample();
  LogBuf("abc");  // Counts all samples since the previous record.
  Blob windowless(BlobCfg(100), &serializer_);
  windowless.LogBuf(reinterpret_cast<const unsigned char*>("d"), 1);
  EXPECT_EQ(blob_.Serialize(), 0);
  const auto records = serializer_.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].data.blobs(0).meta().num_samples(), 3u);
  // The sample closed its own window before the record was filled.
  EXPECT_EQ(records[1].data.blobs(0).meta().num_samples(), 0u);
}

TEST_F(BlobTest, SegmentsAreGatheredWithTheirLengths) {
  const ScopedConf conf(kGathered);
  const std::string three = "abc", five = "defgh";
  const kiv_blob_segment_t segments[] = {Segment(three), {nullptr, 0}, Segment(five)};
  EXPECT_EQ(blob_.LogBufSegs(segments, 3), 0);
  EXPECT_EQ(blob_.LogBufSegs(nullptr, 0), 0);
  const auto records = serializer_.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].kpi_id, kKpiId);
  EXPECT_EQ(records[0].data.blobs(0).data(),
            std::string("\x03\0\0\0abc\0\0\0\0\x05\0\0\0defgh", 20));
  EXPECT_EQ(records[0].data.blobs(0).meta().num_samples(), 1u);
  EXPECT_EQ(records[1].data.blobs(0).data(), "");
  EXPECT_EQ(records[1].data.blobs(0).meta().num_samples(), 1u);
  serializer_.FailCall(1, -4);
  const std::string large(5000, 'x');  // Beyond the size of one sample.
  const kiv_blob_segment_t segment = Segment(large);
  EXPECT_EQ(blob_.LogBufSegs(&segment, 1), -4);
}

TEST_F(BlobTest, OptimizedSegmentsGoToTheSerializerUngathered) {
  const std::string three = "abc", five = "defgh";
  const kiv_blob_segment_t segments[] = {Segment(three), Segment(five)};
  EXPECT_EQ(blob_.LogBufSegs(segments, 2), 0);
  clock_.AdvanceSteady(std::chrono::seconds(1));
  EXPECT_EQ(blob_.LogBufSegs(segments, 2), 0);
  const auto written = serializer_.segments();
  ASSERT_EQ(written.size(), 2u);
  EXPECT_EQ(written[1].kpi_id, kKpiId);
  EXPECT_EQ(written[1].ts_start, 12u);
  EXPECT_EQ(written[1].ts_end, 22u);
  EXPECT_EQ(written[1].num_samples, 2u);  // Not restarted on this path.
  EXPECT_EQ(written[1].pieces, (std::vector<std::string>{three, five}));
  // A serializer that cannot: its answer, and no second try in gathered form.
  serializer_.FailCall(1, -1);
  EXPECT_EQ(blob_.LogBufSegs(segments, 2), -1);
  EXPECT_TRUE(serializer_.records().empty());
}

TEST_F(BlobTest, GatheredSizeBeyond32BitsAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const ScopedConf conf(kGathered);
  const uint8_t byte = 0;
  // Only lengths are looked at before the size is known.
  const kiv_blob_segment_t one[] = {{&byte, 0xFFFFFFFC}};
  EXPECT_ABORT(blob_.LogBufSegs(one, 1));
  const kiv_blob_segment_t two[] = {{&byte, 0x80000000}, {&byte, 0x7FFFFFF8}};
  EXPECT_ABORT(blob_.LogBufSegs(two, 2));
}

#ifndef __has_feature
#define __has_feature(x) 0  // Sanitized builds are clang's.
#endif
// Sanitizers need more address space than the limit leaves.
#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer)
TEST_F(BlobTest, NoMemoryToGatherInIsAnAnswer) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const ScopedConf conf(kGathered);
  const uint8_t byte = 0;
  const kiv_blob_segment_t huge = {&byte, 0xF0000000};
  const auto log_short_of_memory = [&] {
    const rlimit limit = {1u << 30, 1u << 30};
    setrlimit(RLIMIT_AS, &limit);
    const int result = blob_.LogBufSegs(&huge, 1);
    const bool told = log_.Has(ANDROID_LOG_ERROR, "orb_sdk", "Failed to allocate buf");
    exit(result == -1 && told && serializer_.records().empty() ? 0 : 1);
  };
  EXPECT_EXIT(log_short_of_memory(), testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
}  // namespace orb::test
