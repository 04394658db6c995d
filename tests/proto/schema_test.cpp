// Field numbers and presence on the wire, against bytes worked out by hand.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <string>

#include "proto/kpi_data.pb.h"
#include "proto/ltc_campaign.pb.h"
#include "proto/telemetry_footer.pb.h"
#include "tests/support/hex.h"

namespace {

using orb::test::Compact;
using orb::test::FromHex;
using orb::test::ToHex;

template <typename Message>
std::string Hex(const char* text) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
  return ToHex(message.SerializeAsString());
}

TEST(CampaignSchemaTest, EveryFieldHasItsNumber) {
  EXPECT_EQ(Hex<LTCCampaignDef>(R"(
                kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER
                           c_cfg { counter_flag: true } sample_window: 3 }
                kpi_cfgs { kpi_id: 2 type: KPI_NUMERIC sub_type: GAUGE time_window: 1000
                           g_cfg { report_min: true report_max: true report_mean: true
                                   report_stdev: true report_variance: true gauge_flag_6: true
                                   report_slope: true report_offset: true gauge_param_9: 9 } }
                kpi_cfgs { kpi_id: 3 type: KPI_NUMERIC sub_type: HISTOGRAM
                           h_cfg { bucket_bounds: [-1, 5] overflow_bucket: true
                                   underflow_bucket: true } }
                kpi_cfgs { kpi_id: 4 type: KPI_BLOB
                           b_cfg { single_sample_size_threshold_bytes: 100 sample_rate: 7 } }
                kpi_cfgs { kpi_id: 5 type: KPI_STATE }
                kpi_cfgs { kpi_id: 6 type: KPI_EVENT }
                threshold_size: 300 threshold_time: 60 campaign_info: "\377\000"
                lic_sn_kpi_maps { lic_sn: 18446744073709551615 encrypt: true kpi_ids: [1, 300] })"),
            Compact("0a 0f 08 01 10 80808050 18 01 22 02 08 01 38 03"
                    "0a 20 08 02 10 80808050 18 02"
                    "  2a 12 08 01 10 01 18 01 20 01 28 01 30 01 38 01 40 01 48 09 40 e807"
                    "0a 1c 08 03 10 80808050 18 03 32 11 0a 0b ffffffffffffffffff01 05 10 01 18 01"
                    "0a 0d 08 04 10 80808068 4a 04 08 64 10 07"
                    "0a 07 08 05 10 80808058"
                    "0a 07 08 06 10 80808060"
                    "10 ac02 18 3c 22 02 ff 00"
                    "2a 12 08 ffffffffffffffffff01 10 01 1a 03 01 ac02"));
}

TEST(CampaignSchemaTest, AWindowOfZeroIsPresent) {
  KPICfg cfg;
  cfg.set_sample_window(0);
  EXPECT_EQ(cfg.SerializeAsString(), FromHex("38 00"));
  cfg.mutable_c_cfg();
  cfg.mutable_g_cfg();  // Replaces c_cfg.
  EXPECT_EQ(cfg.SerializeAsString(), FromHex("2a 00 38 00"));
}

TEST(KpiDataSchemaTest, EveryFieldHasItsNumber) {
  EXPECT_EQ(Hex<orbtr::KPIData>(R"(
                version: V1 blobs { meta {} data: "x" }
                histograms { meta { kpi_id: 3 } bucket_counts: [0, 0] } histograms { meta {} }
                gauges { meta {} min: -1 max: 0 mean: 1 stdev: 2 variance: 0 slope: -1 offset: 0.5 }
                counters { meta { kpi_id: 300 ts_start: -1 ts_end: 5 num_samples: 2
                                  meta_param_5: 1 meta_values_6: 4 }
                           count: 18446744073709551615 })"),
            Compact("08 01"
                    "12 24 0a 17 08 ac02 10 ffffffffffffffffff01 18 05 20 02 28 01 32 01 04"
                    "  10 ffffffffffffffffff01"
                    "1a 28 0a 00 10 ffffffffffffffffff01 18 00 25 0000803f 2d 00000040"
                    "  35 00000000 3d 000080bf 45 0000003f"
                    "22 08 0a 02 08 03 12 02 00 00"
                    "22 02 0a 00"
                    "2a 05 0a 00 12 01 78"));
}

TEST(FooterSchemaTest, EveryFieldHasItsNumber) {
  EXPECT_EQ(Hex<TelemetryFooter>("ephemeral_key: 'k' iv: 'i'"), "0a016b120169");
  EXPECT_EQ(Hex<TelemetryFooter>("ephemeral_key: 'k' iv: 'i' gcm_tag: 't'"), "0a016b1201691a0174");
}

}  // namespace
