// Field numbers and presence on the wire, against bytes worked out by hand.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "proto/kpi_data.pb.h"
#include "proto/ltc_campaign.pb.h"
#include "proto/telemetry_footer.pb.h"

namespace {

// "0a 1f" and the like, blanks ignored.
std::string Bytes(const char* hex) {
  std::string digits, out;
  for (const char* at = hex; *at != '\0'; ++at) {
    if (*at != ' ') digits += *at;
  }
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    out += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return out;
}

KPICfg* AddKpi(LTCCampaignDef* def, uint32_t id, KPIType type, KPISubType sub_type) {
  KPICfg* cfg = def->add_kpi_cfgs();
  cfg->set_kpi_id(id);
  cfg->set_type(type);
  cfg->set_sub_type(sub_type);
  return cfg;
}

TEST(CampaignSchemaTest, EveryFieldHasItsNumber) {
  LTCCampaignDef def;
  KPICfg* counter = AddKpi(&def, 1, KPI_NUMERIC, COUNTER);
  counter->mutable_c_cfg()->set_counter_flag(true);
  counter->set_sample_window(3);
  KPICfg* gauge = AddKpi(&def, 2, KPI_NUMERIC, GAUGE);
  GaugeConfig* selected = gauge->mutable_g_cfg();
  selected->set_report_min(true);
  selected->set_report_max(true);
  selected->set_report_mean(true);
  selected->set_report_stdev(true);
  selected->set_report_variance(true);
  selected->set_gauge_flag_6(true);
  selected->set_report_slope(true);
  selected->set_report_offset(true);
  selected->set_gauge_param_9(9);
  gauge->set_time_window(1000);
  KPICfg* histogram = AddKpi(&def, 3, KPI_NUMERIC, HISTOGRAM);
  histogram->mutable_h_cfg()->add_bucket_bounds(-1);
  histogram->mutable_h_cfg()->add_bucket_bounds(5);
  histogram->mutable_h_cfg()->set_overflow_bucket(true);
  histogram->mutable_h_cfg()->set_underflow_bucket(true);
  KPICfg* blob = AddKpi(&def, 4, KPI_BLOB, INVALID);
  blob->mutable_b_cfg()->set_single_sample_size_threshold_bytes(100);
  blob->mutable_b_cfg()->set_sample_rate(7);
  AddKpi(&def, 5, KPI_STATE, INVALID);
  AddKpi(&def, 6, KPI_EVENT, INVALID);
  def.set_threshold_size(300);
  def.set_threshold_time(60);
  def.set_campaign_info(std::string("\xff\x00", 2));
  LicenseSNKPIMap* map = def.add_lic_sn_kpi_maps();
  map->set_lic_sn(0xFFFFFFFFFFFFFFFF);
  map->set_encrypt(true);
  map->add_kpi_ids(1);
  map->add_kpi_ids(300);
  EXPECT_EQ(def.SerializeAsString(),
            Bytes("0a 0f 08 01 10 80808050 18 01 22 02 08 01 38 03"
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
  EXPECT_EQ(cfg.SerializeAsString(), Bytes("38 00"));
  cfg.mutable_c_cfg();
  cfg.mutable_g_cfg();  // Replaces c_cfg.
  EXPECT_EQ(cfg.SerializeAsString(), Bytes("2a 00 38 00"));
}

TEST(CampaignSchemaTest, UnknownValuesAndFieldsSurvive) {
  // type -5 in ten bytes, then a field 15 that nobody knows.
  const std::string bytes = Bytes("10 fbffffffffffffffff01 7a 01 41");
  KPICfg cfg;
  ASSERT_TRUE(cfg.ParseFromString(bytes));
  EXPECT_EQ(static_cast<int>(cfg.type()), -5);
  EXPECT_EQ(cfg.sub_type(), INVALID);
  EXPECT_FALSE(KPIType_IsValid(cfg.type()));
  EXPECT_EQ(cfg.SerializeAsString(), bytes);
}

TEST(KpiDataSchemaTest, EveryFieldHasItsNumber) {
  orbtr::KPIData data;
  data.set_version(orbtr::V1);
  orbtr::Blob* blob = data.add_blobs();
  blob->mutable_meta();
  blob->set_data("x");
  orbtr::Histogram* histogram = data.add_histograms();
  histogram->mutable_meta()->set_kpi_id(3);
  histogram->add_bucket_counts(0);
  histogram->add_bucket_counts(0);
  data.add_histograms()->mutable_meta();
  orbtr::Gauge* gauge = data.add_gauges();
  gauge->mutable_meta();
  gauge->set_min(-1);
  gauge->set_max(0);
  gauge->set_mean(1);
  gauge->set_stdev(2);
  gauge->set_variance(0);
  gauge->set_slope(-1);
  gauge->set_offset(0.5f);
  orbtr::Counter* counter = data.add_counters();
  orbtr::MetaData* meta = counter->mutable_meta();
  meta->set_kpi_id(300);
  meta->set_ts_start(-1);
  meta->set_ts_end(5);
  meta->set_num_samples(2);
  meta->set_meta_param_5(1);
  meta->add_meta_values_6(4);
  counter->set_count(0xFFFFFFFFFFFFFFFF);
  EXPECT_EQ(data.SerializeAsString(),
            Bytes("08 01"
                  "12 24 0a 17 08 ac02 10 ffffffffffffffffff01 18 05 20 02 28 01 32 01 04"
                  "  10 ffffffffffffffffff01"
                  "1a 28 0a 00 10 ffffffffffffffffff01 18 00 25 0000803f 2d 00000040"
                  "  35 00000000 3d 000080bf 45 0000003f"
                  "22 08 0a 02 08 03 12 02 00 00"
                  "22 02 0a 00"
                  "2a 05 0a 00 12 01 78"));
}

TEST(FooterSchemaTest, EveryFieldHasItsNumber) {
  TelemetryFooter footer;
  footer.set_ephemeral_key("k");
  footer.set_iv("i");
  EXPECT_EQ(footer.SerializeAsString(), Bytes("0a 01 6b 12 01 69"));
  footer.set_gcm_tag("t");
  EXPECT_EQ(footer.SerializeAsString(), Bytes("0a 01 6b 12 01 69 1a 01 74"));
}

}  // namespace
