#include "kpi/blob.h"

#include <android/log.h>

#include "tests/kpi/kpi_test_support.h"
#include "tests/support/fake_clock.h"
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

const uint8_t* Bytes(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

class BlobTest : public testing::Test {
 protected:
  BlobTest() : blob_(WithSampleWindow(BlobCfg(100), 50), &serializer_) {
    blob_.setKPIId(kRoutingId);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }
  int LogBuf(const std::string& text) {
    return blob_.LogBuf(Bytes(text), static_cast<uint32_t>(text.size()));
  }

  LogCapture log_;
  FakeClock clock_;
  FakeSerializer serializer_;
  Blob blob_;
  const std::string three_ = "abc", five_ = "defgh";
  const kiv_blob_segment_t segments_[3] = {{Bytes(three_), 3}, {nullptr, 0}, {Bytes(five_), 5}};
};

TEST(BlobCfgTest, LimitsComeFromTheConfigurationFile) {
  const struct {
    const char* conf;
    uint32_t size_bytes;
    uint32_t rate;
    bool want;
  } cases[] = {
      {"", 0, 0, false},
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
  for (const auto& c : cases) {
    const ScopedConf conf(c.conf);
    EXPECT_EQ(KPI::Create(BlobCfg(c.size_bytes, c.rate), nullptr) != nullptr, c.want)
        << c.conf << ", " << c.size_bytes << ", " << c.rate;
  }
}

TEST_F(BlobTest, EveryBufferOfThePermittedSizeIsARecord) {
  EXPECT_EQ(LogBuf("abc"), 0);
  EXPECT_EQ(LogBuf(std::string(101, 'x')), -1);
  EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "orb_sdk",
                       "LogBuf: blob size 101 greater than singlesamplesizetresholdbytes 100"))
      << log_.Dump();
  EXPECT_EQ(LogBuf(std::string(100, 'x')), 0);
  // The configuration's id routes, not the one that the owner set.
  EXPECT_EQ(serializer_.text(), "7: 7 12..12 x1 blob 616263\n7: 7 12..12 x1 blob " +
                                    ToHex(std::string(100, 'x')) + "\n");
}

TEST_F(BlobTest, ClosingWindowWritesNothingAndTakesTheCount) {
  blob_.AddSample();
  blob_.AddSample();
  LogBuf("a");  // Counts all samples since the previous record.
  Blob windowless(BlobCfg(100), &serializer_);
  windowless.LogBuf(Bytes("b"), 1);
  EXPECT_EQ(blob_.Serialize(), 0);
  // The second sample closed its own window before the record was filled.
  EXPECT_EQ(serializer_.text(), "7: 7 12..12 x3 blob 61\n7: 7 12..12 x0 blob 62\n");
}

TEST_F(BlobTest, SegmentsAreGatheredWithTheirLengths) {
  const ScopedConf conf(kGathered);
  EXPECT_EQ(blob_.LogBufSegs(segments_, 3), 0);
  EXPECT_EQ(blob_.LogBufSegs(nullptr, 0), 0);
  EXPECT_EQ(serializer_.text(),
            "7: 7 12..12 x1 blob 0300000061626300000000050000006465666768\n"
            "7: 7 12..12 x1 blob \n");
  serializer_.FailNext(-4);
  const std::string large(5000, 'x');  // Beyond the size of one sample.
  const kiv_blob_segment_t segment = {Bytes(large), 5000};
  EXPECT_EQ(blob_.LogBufSegs(&segment, 1), -4);
}

TEST_F(BlobTest, OptimizedSegmentsGoToTheSerializerUngathered) {
  EXPECT_EQ(blob_.LogBufSegs(segments_, 3), 0);
  clock_.AdvanceSteady(std::chrono::seconds(1));
  EXPECT_EQ(blob_.LogBufSegs(segments_, 3), 0);
  // Not restarted on this path.
  const std::string want =
      "7: 12..12 x1 segments 616263  6465666768\n7: 12..22 x2 segments 616263  6465666768\n";
  EXPECT_EQ(serializer_.text(), want);
  // A serializer that cannot: its answer, and no second try in gathered form.
  serializer_.FailNext(-1);
  EXPECT_EQ(blob_.LogBufSegs(segments_, 3), -1);
  EXPECT_EQ(serializer_.text(), want);
}

TEST_F(BlobTest, BlobsThatNoRecordHoldsAreRefusedUnread) {
  const ScopedConf conf(kGathered);
  const uint8_t byte = 0;
  Blob unlimited(BlobCfg(0xFFFFFFFF), &serializer_);
  EXPECT_EQ(unlimited.LogBuf(&byte, 0x7FFFFFFF), -1);
  EXPECT_TRUE(log_.Contains("LogBuf: blob of 2147483647 bytes is too long for a record"));
  const kiv_blob_segment_t two[] = {{&byte, 0x40000000}, {&byte, 0x40000000}};
  EXPECT_EQ(unlimited.LogBufSegs(two, 2), -1);
  EXPECT_TRUE(log_.Contains("LogBufSegs: blob of 2147483656 bytes is too long for a record"));
  EXPECT_EQ(unlimited.CountSamples().lost[LossCause::kOversize], 2u);
  const kiv_blob_segment_t without_bytes[] = {{&byte, 1}, {nullptr, 3}};
  EXPECT_EQ(unlimited.LogBufSegs(without_bytes, 2), -1);
  EXPECT_EQ(unlimited.CountSamples().lost[LossCause::kEncode], 1u);
  EXPECT_EQ(serializer_.text(), "");
}

TEST_F(BlobTest, GatheredSizeBeyond32BitsAborts) {
  const ScopedConf conf(kGathered);
  const uint8_t byte = 0;
  // Only lengths are looked at before the size is known.
  const kiv_blob_segment_t one[] = {{&byte, 0xFFFFFFFC}};
  EXPECT_ABORT(blob_.LogBufSegs(one, 1));
  const kiv_blob_segment_t two[] = {{&byte, 0x80000000}, {&byte, 0x7FFFFFF8}};
  EXPECT_ABORT(blob_.LogBufSegs(two, 2));
}

}  // namespace
}  // namespace orb::test
