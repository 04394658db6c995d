// Campaign files, the checks on them and the command around both.
#include "tools/orbctl/campaign_lint.h"

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/support/child_process.h"
#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/key_command.h"

namespace orb::orbctl {
namespace {

using google::protobuf::TextFormat;
using orb::test::TempDir;
using orb::test::WriteFile;

constexpr char kSound[] = R"(
  threshold_size: 65536
  kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER sample_window: 100 }
  kpi_cfgs { kpi_id: 2 type: KPI_NUMERIC sub_type: GAUGE time_window: 60000
             g_cfg { report_mean: true } }
  kpi_cfgs { kpi_id: 3 type: KPI_NUMERIC sub_type: HISTOGRAM time_window: 60000
             h_cfg { bucket_bounds: [10, 20] underflow_bucket: true overflow_bucket: true } }
  kpi_cfgs { kpi_id: 4 type: KPI_BLOB b_cfg { single_sample_size_threshold_bytes: 100 } }
  lic_sn_kpi_maps { lic_sn: 42 kpi_ids: [1, 2, 3, 4] })";

// "refused rule" or "warning rule", in order.
std::vector<std::string> Rules(const std::vector<LintFinding>& findings) {
  std::vector<std::string> rules;
  for (const LintFinding& finding : findings) {
    rules.push_back((finding.refused ? "refused " : "warning ") + finding.rule);
  }
  return rules;
}

LTCCampaignDef Campaign(const std::string& text) {
  LTCCampaignDef campaign;
  EXPECT_TRUE(TextFormat::ParseFromString(text, &campaign)) << text;
  return campaign;
}

// One KPI, with the id 9, that belongs to the LicSN 42.
LTCCampaignDef WithKpi(const std::string& kpi) {
  return Campaign("threshold_size: 100 lic_sn_kpi_maps { lic_sn: 42 kpi_ids: 9 } kpi_cfgs { " +
                  kpi + " kpi_id: 9 }");
}

TEST(CampaignLintTest, SoundCampaign) {
  EXPECT_EQ(Rules(LintCampaign({Campaign(kSound), Conf(), std::nullopt, false})),
            std::vector<std::string>());
}

TEST(CampaignLintTest, OneKpi) {
  struct Case {
    const char* kpi;
    std::vector<std::string> want;
  };
  const Case kCases[] = {
      {"type: KPI_NUMERIC", {"refused unknown_subtype"}},
      {"type: KPI_NUMERIC sub_type: 7", {"refused unknown_subtype"}},
      {"type: 5", {"refused unknown_type"}},
      {"type: KPI_EVENT", {"refused event_kpi"}},
      {"type: KPI_STATE", {"warning state_kpi"}},
      {"type: KPI_NUMERIC sub_type: COUNTER", {"warning window_missing"}},
      {"type: KPI_NUMERIC sub_type: COUNTER time_window: 0", {"warning window_missing"}},
      {"type: KPI_NUMERIC sub_type: COUNTER time_window: 1", {}},
      {"type: KPI_NUMERIC sub_type: COUNTER sample_window: 1", {"warning window_of_one"}},
      {"type: KPI_NUMERIC sub_type: COUNTER sample_window: 5 b_cfg {}", {"warning section_unused"}},
      {"type: KPI_NUMERIC sub_type: GAUGE sample_window: 5 g_cfg { gauge_flag_6: true }",
       {"warning statistics_missing"}},
      {"type: KPI_NUMERIC sub_type: GAUGE time_window: 2147483648 g_cfg { report_min: true }",
       {"warning window_too_large"}},
      {"type: KPI_NUMERIC sub_type: HISTOGRAM sample_window: 5", {"warning bucket_count"}},
      {"type: KPI_NUMERIC sub_type: HISTOGRAM sample_window: 5 h_cfg { bucket_bounds: [1, 2, 2] "
       "overflow_bucket: true underflow_bucket: true }",
       {"warning bounds_order"}},
      {"type: KPI_NUMERIC sub_type: HISTOGRAM sample_window: 5 h_cfg { bucket_bounds: [1, 2] }",
       {"warning values_outside"}},
      {"type: KPI_BLOB b_cfg { single_sample_size_threshold_bytes: 3 sample_rate: 1001 }",
       {"refused blob_size_min_bytes", "refused blob_sample_rate_max"}},
      {"type: KPI_BLOB b_cfg { single_sample_size_threshold_bytes: 2097153 }",
       {"refused blob_size_max_bytes"}},
      {"type: KPI_BLOB", {"refused blob_size_min_bytes"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.kpi);
    const auto findings = LintCampaign({WithKpi(c.kpi), Conf(), std::nullopt, false});
    EXPECT_EQ(Rules(findings), c.want);
    for (const LintFinding& finding : findings) EXPECT_EQ(finding.entry, "kpi_cfgs[0] (kpi_id 9)");
  }
}

TEST(CampaignLintTest, HistogramSizes) {
  struct Case {
    int bounds;
    std::vector<std::string> want;
  };
  const Case kCases[] = {
      {254, {}},
      {255, {"warning bucket_count"}},
      {1024, {"warning bucket_count"}},
      {1025, {"refused hist_nof_buckets_max", "warning bucket_count"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.bounds);
    LTCCampaignDef campaign = Campaign(kSound);
    HistogramConfig* config = campaign.mutable_kpi_cfgs(2)->mutable_h_cfg();
    config->clear_bucket_bounds();
    for (int i = 0; i < c.bounds; ++i) config->add_bucket_bounds(i);
    EXPECT_EQ(Rules(LintCampaign({campaign, Conf(), std::nullopt, false})), c.want);
  }
}

TEST(CampaignLintTest, LimitsOfTheDevice) {
  Conf conf;
  conf.size_threshold_min_bytes = 65537;
  conf.nof_kpis_max = 3;
  conf.cfg_payload_max_bytes = 2;
  LTCCampaignDef campaign = Campaign(kSound);
  campaign.set_campaign_info("abc");
  EXPECT_EQ(Rules(LintCampaign({campaign, conf, std::nullopt, false})),
            (std::vector<std::string>{"refused size_threshold_min_bytes", "refused nof_kpis_max",
                                      "refused cfg_payload_max_bytes"}));
  // As the library compares them: sizes as unsigned, a negative payload limit is none.
  conf = Conf();
  conf.size_threshold_max_bytes = -1;
  conf.cfg_payload_max_bytes = -1;
  campaign.set_threshold_size(0xFFFFFFFF);
  EXPECT_EQ(Rules(LintCampaign({campaign, conf, std::nullopt, false})), std::vector<std::string>());
  EXPECT_EQ(Rules(LintCampaign({campaign, Conf(), std::nullopt, false})),
            std::vector<std::string>{"refused size_threshold_max_bytes"});
  campaign.set_campaign_info(std::string(1 << 20, 'x'));
  EXPECT_EQ(Rules(LintCampaign({campaign, conf, std::nullopt, false})),
            std::vector<std::string>{"warning transaction_size"});
}

TEST(CampaignLintTest, OwnersAndKeys) {
  TempDir dir;
  ASSERT_EQ(NewKey(dir.path() + "/key", true), 0);
  const std::string key = dir.path() + "/key/public.pem";
  const std::string other = dir.path() + "/key/private.pem";
  const std::string counter =
      "kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER sample_window: 2 } ";
  const std::string kpi = "threshold_size: 100 " + counter;
  struct Case {
    const char* name;
    std::string maps;
    std::optional<std::vector<std::string>> lics;
    std::vector<std::string> want;
  };
  const Case kCases[] = {
      {"no owner", "", std::nullopt, {"warning kpi_without_lic_sn"}},
      {"unknown KPI",
       "lic_sn_kpi_maps { lic_sn: 1 kpi_ids: [1, 2] }",
       std::nullopt,
       {"warning unknown_kpi_id"}},
      {"listed twice",
       "lic_sn_kpi_maps { lic_sn: 1 kpi_ids: [1, 1] }",
       std::nullopt,
       {"warning kpi_listed_twice"}},
      {"duplicate id",
       counter + "lic_sn_kpi_maps { lic_sn: 1 kpi_ids: 1 }",
       std::nullopt,
       {"warning duplicate_kpi_id"}},
      {"contradiction",
       "lic_sn_kpi_maps { lic_sn: 1 kpi_ids: 1 } lic_sn_kpi_maps { lic_sn: 1 encrypt: true }",
       std::nullopt,
       {"warning encrypt_contradiction"}},
      {"plain", "lic_sn_kpi_maps { lic_sn: 1 kpi_ids: 1 }", {{"1"}}, {}},
      {"no record",
       "lic_sn_kpi_maps { lic_sn: 1 kpi_ids: 1 }",
       {{"0x2"}},
       {"warning lic_sn_without_record", "warning record_without_map"}},
      {"no key",
       "lic_sn_kpi_maps { lic_sn: 1 encrypt: true kpi_ids: 1 }",
       {{"1"}},
       {"warning encrypt_without_key"}},
      {"key",
       "lic_sn_kpi_maps { lic_sn: 1 encrypt: true kpi_ids: 1 }",
       {{"1:" + key + ":gcm"}},
       {}},
      {"private key",
       "lic_sn_kpi_maps { lic_sn: 1 encrypt: true kpi_ids: 1 }",
       {{"1:" + other + ":cbc"}},
       {"warning key_unusable"}},
      {"record twice",
       "lic_sn_kpi_maps { lic_sn: 1 kpi_ids: 1 }",
       {{"1", "1"}},
       {"warning duplicate_lic"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    std::optional<std::vector<LicOption>> lics;
    if (c.lics.has_value()) {
      lics.emplace(c.lics->size());
      std::string error;
      for (size_t i = 0; i < c.lics->size(); ++i) {
        EXPECT_TRUE(ParseLicOption((*c.lics)[i], &(*lics)[i], &error)) << error;
      }
    }
    EXPECT_EQ(Rules(LintCampaign({Campaign(kpi + c.maps), Conf(), lics, false})), c.want);
  }
  const std::vector<LicOption> two = {{1, "", 0, 0}, {2, "", 0, 0}};
  const auto shared = LintCampaign(
      {Campaign(kpi + "lic_sn_kpi_maps { lic_sn: 1 kpi_ids: 1 } lic_sn_kpi_maps { lic_sn: 2 }"),
       Conf(), two, true});
  EXPECT_EQ(Rules(shared), std::vector<std::string>{"refused one_lic_sn"});
}

TEST(LicOptionTest, RefusesMalformedText) {
  for (const char* text : {"", "x", "-1", "18446744073709551616", "0x", "1:", "1:gcm",
                           "1:/none/key.pem:aes", "1:/none/key.pem:gcm", " 1"}) {
    LicOption option;
    std::string error;
    EXPECT_FALSE(ParseLicOption(text, &option, &error)) << text;
    EXPECT_NE(error, "");
  }
}

class CampaignFileTest : public testing::Test {
 protected:
  std::string File(const std::string& name, const std::string& content) {
    WriteFile(dir_.path() + "/" + name, content);
    return dir_.path() + "/" + name;
  }
  TempDir dir_;
};

TEST_F(CampaignFileTest, ReadsTextAndBinaryWhateverTheName) {
  const LTCCampaignDef want = Campaign(kSound);
  const std::string bytes = want.SerializeAsString();
  for (const std::string& path :
       {File("a.txtpb", kSound), File("b", kSound), File("c.pb", bytes), File("d", bytes)}) {
    LTCCampaignDef got;
    std::string error;
    EXPECT_TRUE(ReadCampaignFile(path, &got, &error)) << error;
    EXPECT_EQ(got.SerializeAsString(), bytes) << path;
  }
}

TEST_F(CampaignFileTest, SaysWhereAFileIsWrong) {
  struct Case {
    const char* name;
    const char* content;
    const char* want;  // After the directory.
  };
  const Case kCases[] = {
      {"a.txtpb", "threshold_size: 1\nkpi_cfgs { kpi: 1 }\n",
       "/a.txtpb:2:15: Message type \"KPICfg\" "
       "has no field named \"kpi\"."},
      {"b.txtpb", "threshold_size: 99999999999", "/b.txtpb:1:17: Integer out of range"},
      {"c.pb", "\x0a\x50", "/c.pb: not a serialized LTCCampaignDef"},
  };
  for (const Case& c : kCases) {
    LTCCampaignDef campaign;
    std::string error;
    EXPECT_FALSE(ReadCampaignFile(File(c.name, c.content), &campaign, &error));
    EXPECT_EQ(error.substr(0, dir_.path().size() + strlen(c.want)), dir_.path() + c.want);
  }
  LTCCampaignDef campaign;
  std::string error;
  EXPECT_FALSE(ReadCampaignFile(dir_.path() + "/none", &campaign, &error));
  EXPECT_NE(error.find("No such file"), std::string::npos);
}

TEST_F(CampaignFileTest, CommandReportsAndAnswers) {
  CampaignLintCommand command;
  command.path = File("sound.txtpb", kSound);
  std::ostringstream out;
  EXPECT_EQ(command.Run(out), 0);
  EXPECT_NE(out.str().find("a session would start (0 refused, 0 warnings)"), std::string::npos);

  command.conf_path = File("device.conf", "size_threshold_max_bytes = 1000\n");
  command.json = true;
  command.lics = {"43"};
  out.str("");
  EXPECT_EQ(command.Run(out), 1);
  const auto report = nlohmann::json::parse(out.str());
  EXPECT_EQ(report["accepted"], false);
  EXPECT_EQ(report["findings"][0]["entry"], "threshold_size");
  EXPECT_EQ(report["findings"][0]["rule"], "size_threshold_max_bytes");
  EXPECT_EQ(report["findings"][0]["severity"], "refused");
  EXPECT_EQ(report["findings"].size(), 3u);

  testing::internal::CaptureStderr();
  command.lics = {"nonsense"};
  EXPECT_EQ(command.Run(out), 2);
  command.lics = {};
  command.conf_path = dir_.path() + "/none";
  EXPECT_EQ(command.Run(out), 1);
  command.conf_path = "";
  command.path = dir_.path() + "/none";
  EXPECT_EQ(command.Run(out), 1);
  const std::string errors = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 3) << errors;
}

}  // namespace
}  // namespace orb::orbctl
