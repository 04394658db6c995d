// Logging: which operation takes which type, and how it refuses others.
#include "tests/collector/collector_fixture.h"

namespace orb::test {
namespace {

using LoggingTest = CollectorFixture;

TEST_F(LoggingTest, OperationsTakeTheirOwnTypeOnly) {
  const uint32_t kNumeric = 1, kState = 2, kBlob = 3, kUnknown = 9;
  const uint8_t bytes[8] = {};
  const kiv_blob_segment_t segment = {bytes, 4};
  WriteConf("blob_segments_optimized=2\n");  // Files take gathered segments only.
  MakeRegistered();
  for (const uint32_t kpi : {kNumeric, kState, kBlob}) {
    EXPECT_EQ(collector_->Log(kpi, 5u), -1) << "before any session";
    EXPECT_EQ(collector_->IsKPIEnabled(kpi), 0);
  }
  ASSERT_EQ(collector_->StartSession(
                MakeConfig(MakeCampaign({MakeKpi(kNumeric, KPI_NUMERIC, GAUGE),
                                         MakeKpi(kState, KPI_STATE), MakeKpi(kBlob, KPI_BLOB)}))),
            0);
  const struct {
    uint32_t kpi;
    int log, event, state, blob, segments, enabled;
  } cases[] = {{kNumeric, 0, -1, -2, -2, -2, 1},
               {kState, -1, -1, 0, -2, -2, 1},
               {kBlob, -1, -1, -2, 0, 0, 1},
               {kUnknown, -1, -1, -1, -1, -1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.kpi);
    EXPECT_EQ(collector_->Log(c.kpi, 5u), c.log);
    EXPECT_EQ(collector_->LogEvent(c.kpi, 5), c.event);
    EXPECT_EQ(collector_->LogState(c.kpi, 1, 2), c.state);
    EXPECT_EQ(collector_->Log(c.kpi, bytes, sizeof bytes), c.blob);
    EXPECT_EQ(collector_->Log(c.kpi, &segment, 1), c.segments);
    EXPECT_EQ(collector_->IsKPIEnabled(c.kpi), c.enabled);
  }
}

TEST_F(LoggingTest, ThresholdSetAtRunTimeSendsFilesEarlier) {
  MakeRegistered();
  ASSERT_EQ(collector_->StartSession(MakeConfig(MakeCampaign(), {MakeLicInfo(42)})), 0);
  const std::string record(300, 'r');
  for (const int parameter : {7, int{KIV_PARAM_TIME_THRESHOLD}}) {  // Neither counts.
    EXPECT_EQ(kiv_set_cfg(collector_.get(), static_cast<kiv_param_type_t>(parameter), 200), 0);
  }
  EXPECT_EQ(kiv_log_buf(collector_.get(), Bytes(record), 300), 0);
  const std::string file = data_dir_ + "/radio-42.tmp";
  EXPECT_TRUE(WaitFor([&] { return ReadFileOrEmpty(file).size() == 66 + 2 + 300; }));
  EXPECT_EQ(client_->Count("sendData"), 0u);
  EXPECT_EQ(kiv_set_cfg(collector_.get(), KIV_PARAM_SIZE_THRESHOLD, 200), 0);
  EXPECT_EQ(kiv_log_buf(collector_.get(), Bytes(record), 300), 0);
  EXPECT_TRUE(client_->WaitForCalls("sendData", 1));
}

}  // namespace
}  // namespace orb::test
