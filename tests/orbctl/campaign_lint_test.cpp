// Campaign files, the checks on them and the command around both.
#include "tools/orbctl/campaign_lint.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/support/child_process.h"
#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/campaign_owners.h"
#include "tools/orbctl/key_command.h"

namespace orb::orbctl {
namespace {

using google::protobuf::TextFormat;
using orb::test::TempDir;
using orb::test::WriteFile;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kSound[] = R"(
  threshold_size: 65536
  kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER sample_window: 100 }
  kpi_cfgs { kpi_id: 2 type: KPI_NUMERIC sub_type: GAUGE time_window: 60000
             g_cfg { report_mean: true } }
  kpi_cfgs { kpi_id: 3 type: KPI_NUMERIC sub_type: HISTOGRAM time_window: 60000
             h_cfg { bucket_bounds: [10, 20] underflow_bucket: true overflow_bucket: true } }
  kpi_cfgs { kpi_id: 4 type: KPI_BLOB b_cfg { single_sample_size_threshold_bytes: 100 } }
  lic_sn_kpi_maps { lic_sn: 42 kpi_ids: [1, 2, 3, 4] })";

// "refused rule, warning rule" and so on, in order.
std::string Rules(const std::vector<LintFinding>& findings) {
  std::string rules;
  for (const LintFinding& finding : findings) {
    if (!rules.empty()) rules += ", ";
    rules += (finding.severity == Severity::kRefused ? "refused "
              : finding.severity == Severity::kFatal ? "fatal "
                                                     : "warning ") +
             finding.rule;
  }
  return rules;
}

std::string Lint(const LTCCampaignDef& campaign, const Conf& conf = Conf(),
                 const std::vector<LicOption>& lics = {}, bool shared_memory = false) {
  std::map<uint32_t, ValueLimit> values;
  for (const KPICfg& cfg : campaign.kpi_cfgs()) values[cfg.kpi_id()] = {100, {}};
  return Rules(LintCampaign({campaign, conf, lics, false, shared_memory, values}));
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

TEST(CampaignLintTest, OneKpi) {
  const std::pair<const char*, const char*> kCases[] = {
      {"type: KPI_NUMERIC", "refused unknown_subtype"},
      {"type: 5", "refused unknown_type"},
      {"type: KPI_EVENT", "refused event_kpi"},
      {"type: KPI_STATE", "warning state_kpi"},
      {"type: KPI_NUMERIC sub_type: COUNTER", "warning window_missing"},
      {"type: KPI_NUMERIC sub_type: COUNTER time_window: 1", ""},
      {"type: KPI_NUMERIC sub_type: COUNTER sample_window: 1", "warning window_of_one"},
      {"type: KPI_NUMERIC sub_type: COUNTER sample_window: 5 b_cfg {}", "warning section_unused"},
      {"type: KPI_NUMERIC sub_type: GAUGE sample_window: 5 g_cfg { gauge_flag_6: true }",
       "warning statistics_missing, warning value_limit"},
      {"type: KPI_NUMERIC sub_type: GAUGE time_window: 2147483648 g_cfg { report_min: true }",
       "warning window_too_large, warning value_limit"},
      {"type: KPI_NUMERIC sub_type: HISTOGRAM sample_window: 5", "warning bucket_count"},
      {"type: KPI_NUMERIC sub_type: HISTOGRAM sample_window: 5 h_cfg { bucket_bounds: [1, 2, 2] "
       "overflow_bucket: true underflow_bucket: true }",
       "warning bounds_order"},
      {"type: KPI_NUMERIC sub_type: HISTOGRAM sample_window: 5 h_cfg { bucket_bounds: [1, 2] }",
       "warning values_outside"},
      {"type: KPI_BLOB b_cfg { single_sample_size_threshold_bytes: 3 sample_rate: 1001 }",
       "refused blob_size_min_bytes, refused blob_sample_rate_max"},
      {"type: KPI_BLOB b_cfg { single_sample_size_threshold_bytes: 2097153 }",
       "refused blob_size_max_bytes"},
  };
  for (const auto& [kpi, want] : kCases) {
    SCOPED_TRACE(kpi);
    const auto findings = LintCampaign({WithKpi(kpi), Conf()});
    EXPECT_EQ(Rules(findings), want);
    for (const LintFinding& finding : findings) EXPECT_EQ(finding.entry, "kpi_cfgs[0] (kpi_id 9)");
  }
}

// The bound itself has its test in safe_values_test.cpp.
TEST(CampaignLintTest, ValuesThatEndTheClient) {
  const struct {
    const char* kpi;
    const char* values;  // Empty: not known.
    const char* want;
    const char* message;
  } kCases[] = {
      {"GAUGE time_window: 3000 g_cfg { report_stdev: true }", "", "warning value_limit",
       "beyond 101233349 end the client with a window of 30 samples, one each 100 ms (assumed)"},
      {"GAUGE time_window: 3000 g_cfg { report_stdev: true }", "9=101233349", "", ""},
      {"GAUGE time_window: 3000 g_cfg { report_stdev: true }", "0x9=101233350",
       "fatal value_overflow", "up to 101233350 end"},
      {"GAUGE time_window: 3000 g_cfg { report_stdev: true }", "9=1012333500@1s",
       "fatal value_overflow", "the largest safe value is 1012333499"},
      {"GAUGE time_window: 86400000 g_cfg { report_slope: true }", "", "warning value_overflow",
       "of 864000 samples, one each 100 ms (assumed) ends the client whatever the values: slope"},
      {"GAUGE time_window: 86400000 g_cfg { report_slope: true }", "9=0@1s", "fatal value_overflow",
       "of 86400 samples, one each 1000 ms ends"},
      {"GAUGE time_window: 86400000 g_cfg { report_slope: true }", "9=100@1m", "", ""},
      {"COUNTER time_window: 1000", "9=4294967295", "", ""},
      {"COUNTER time_window: 1000", "8=1", "warning unknown_kpi_id", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.kpi);
    LTCCampaignDef campaign = WithKpi(std::string("type: KPI_NUMERIC sub_type: ") + c.kpi);
    LintInput input{campaign, Conf()};
    uint32_t kpi_id = 0;
    ValueLimit limit;
    std::string error;
    if (*c.values != '\0') {
      ASSERT_TRUE(ParseValueLimit(c.values, &kpi_id, &limit, &error)) << error;
      input.values[kpi_id] = limit;
    }
    const auto findings = LintCampaign(input);
    EXPECT_EQ(Rules(findings), c.want);
    for (const LintFinding& finding : findings) EXPECT_THAT(finding.message, HasSubstr(c.message));
  }
  for (const char* text : {"", "9", "9=", "=1", "9=-1", "9=1@", "9=1@0s", "9=1@2", "9@1s=1",
                           "4294967296=1", "9=4294967296"}) {
    ValueLimit limit;
    uint32_t kpi_id = 0;
    std::string error;
    EXPECT_FALSE(ParseValueLimit(text, &kpi_id, &limit, &error)) << text;
  }
}

TEST(CampaignLintTest, HistogramSizes) {
  const std::pair<int, const char*> kCases[] = {
      {254, ""},
      {255, "warning bucket_count"},
      {1024, "warning bucket_count"},
      {1025, "refused hist_nof_buckets_max, warning bucket_count"},
  };
  for (const auto& [bounds, want] : kCases) {
    SCOPED_TRACE(bounds);
    LTCCampaignDef campaign = Campaign(kSound);
    HistogramConfig* config = campaign.mutable_kpi_cfgs(2)->mutable_h_cfg();
    config->clear_bucket_bounds();
    for (int i = 0; i < bounds; ++i) config->add_bucket_bounds(i);
    EXPECT_EQ(Lint(campaign), want);
  }
}

TEST(CampaignLintTest, LimitsOfTheDevice) {
  Conf conf;
  conf.size_threshold_min_bytes = 65537;
  conf.nof_kpis_max = 3;
  conf.cfg_payload_max_bytes = 2;
  LTCCampaignDef campaign = Campaign(kSound);
  EXPECT_EQ(Lint(campaign), "");
  campaign.set_campaign_info("abc");
  EXPECT_EQ(
      Lint(campaign, conf),
      "refused size_threshold_min_bytes, refused nof_kpis_max, refused cfg_payload_max_bytes");
  // As the library compares them: sizes as unsigned, a negative payload limit is none.
  conf = Conf();
  conf.size_threshold_max_bytes = -1;
  conf.cfg_payload_max_bytes = -1;
  campaign.set_threshold_size(0xFFFFFFFF);
  EXPECT_EQ(Lint(campaign, conf), "");
  EXPECT_EQ(Lint(campaign), "refused size_threshold_max_bytes");
  campaign.set_campaign_info(std::string(1 << 20, 'x'));
  EXPECT_EQ(Lint(campaign, conf), "warning transaction_size");
}

TEST(CampaignLintTest, OwnersAndKeys) {
  TempDir dir;
  ASSERT_EQ(NewKey(dir.path() + "/key", true), 0);
  const std::string key = "1:" + dir.path() + "/key/public.pem:gcm";
  const std::string private_key = "1:" + dir.path() + "/key/private.pem:cbc";
  const std::string counter =
      "kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER sample_window: 2 } ";
  const std::string plain = "lic_sn_kpi_maps { lic_sn: 1 kpi_ids: 1 } ";
  const std::string sealed = "lic_sn_kpi_maps { lic_sn: 1 encrypt: true kpi_ids: 1 } ";
  const struct {
    std::string maps;
    std::vector<std::string> lics;
    const char* want;
  } kCases[] = {
      {"", {}, "warning kpi_without_lic_sn, refused owner"},
      {"", {"1"}, "warning kpi_without_lic_sn, warning record_without_map"},
      {"lic_sn_kpi_maps { lic_sn: 1 kpi_ids: [1, 2] }", {}, "warning unknown_kpi_id"},
      {"lic_sn_kpi_maps { lic_sn: 1 kpi_ids: [1, 1] }", {}, "warning kpi_listed_twice"},
      {counter + plain, {}, "warning duplicate_kpi_id"},
      {plain + "lic_sn_kpi_maps { lic_sn: 1 encrypt: true }", {}, "warning encrypt_contradiction"},
      {plain, {"1"}, ""},
      {plain, {"0x2"}, "warning record_without_map"},
      {plain, {key}, "refused owner"},
      {sealed, {}, "warning encrypt_without_key"},
      {plain, {"1", "1"}, "warning duplicate_lic"},
      {sealed, {"1"}, "warning encrypt_without_key"},
      {sealed, {key}, ""},
      {sealed, {private_key}, "warning key_unusable"},
  };
  const std::string head = "threshold_size: 100 " + counter;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.maps);
    std::vector<LicOption> lics(c.lics.size());
    std::string error;
    for (size_t i = 0; i < lics.size(); ++i) {
      EXPECT_TRUE(ParseLicOption(c.lics[i], &lics[i], &error)) << error;
    }
    const LTCCampaignDef campaign = Campaign(head + c.maps);
    EXPECT_EQ(Lint(campaign, Conf(), lics), c.want);
    EXPECT_EQ(OwnerFault(campaign, lics, true).empty(), lics.size() + c.maps.size() > 0);
  }
  const LTCCampaignDef two = Campaign(head + plain + "lic_sn_kpi_maps { lic_sn: 2 }");
  EXPECT_EQ(Lint(two, Conf(), {}, true), "refused one_lic_sn");
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
  const struct {
    const char* name;
    const char* content;
    const char* want;
  } kCases[] = {
      {"a.txtpb", "threshold_size: 1\nkpi_cfgs { kpi: 1 }\n",
       ":2:15: Message type \"KPICfg\" has no field named \"kpi\"."},
      {"c.pb", "\x0a\x50", ": not a serialized LTCCampaignDef"},
  };
  LTCCampaignDef campaign;
  std::string error;
  for (const auto& c : kCases) {
    const std::string path = File(c.name, c.content);
    EXPECT_FALSE(ReadCampaignFile(path, &campaign, &error));
    EXPECT_THAT(error, StartsWith(path + c.want));
  }
  EXPECT_FALSE(ReadCampaignFile(dir_.path() + "/none", &campaign, &error));
  EXPECT_THAT(error, HasSubstr("No such file"));
}

TEST_F(CampaignFileTest, CommandReportsAndAnswers) {
  CampaignLintCommand command;
  command.path = File("sound.txtpb", kSound);
  std::ostringstream out;
  EXPECT_EQ(command.Run(out), 0);
  EXPECT_THAT(out.str(), HasSubstr("a session would start (0 refused, 0 fatal, 1 warnings)"));
  // Notes in the file count, and the command line before them.
  const std::string note = File("note.txtpb", std::string(kSound) + "\n  # max-value 2=7@1s\n");
  command.path = note;
  out.str("");
  EXPECT_EQ(command.Run(out), 0);
  EXPECT_THAT(out.str(), HasSubstr("(0 refused, 0 fatal, 0 warnings)"));
  command.max_values = {"2=4000000000@1s"};
  out.str("");
  EXPECT_EQ(command.Run(out), 1);
  EXPECT_THAT(out.str(), HasSubstr("would end its client (0 refused, 1 fatal, 0 warnings)"));
  command.max_values = {};

  command.path = File("sound.txtpb", kSound);
  command.conf_path = File("device.conf", "size_threshold_max_bytes = 1000\n");
  command.json = true;
  command.lics = {"43"};
  out.str("");
  EXPECT_EQ(command.Run(out), 1);
  const auto report = nlohmann::json::parse(out.str());
  EXPECT_EQ(report["accepted"], false);
  EXPECT_EQ(report["findings"].size(), 3u);
  EXPECT_THAT(report["findings"][0].dump(),
              HasSubstr(R"("rule":"size_threshold_max_bytes","severity":"refused")"));

  testing::internal::CaptureStderr();
  command.lics = {"nonsense"};
  EXPECT_EQ(command.Run(out), 2);
  command.lics = {};
  command.max_values = {"2"};
  EXPECT_EQ(command.Run(out), 2);
  command.max_values = {};
  command.conf_path = dir_.path() + "/none";
  EXPECT_EQ(command.Run(out), 1);
  command.conf_path = {};
  command.path = File("note.txtpb", "# max-value 2");
  EXPECT_EQ(command.Run(out), 1);
  const std::string errors = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 4) << errors;
}

// What is shown to people must not end their programs. 4 TiB are in sysmon's note.
TEST_F(CampaignFileTest, ExamplesAreSafe) {
  for (const char* name : {"sysmon", "sysmon_slots", "radio"}) {
    CampaignLintCommand command;
    command.path = std::string("examples/") + name + ".txtpb";
    std::ostringstream out;
    EXPECT_EQ(command.Run(out), 0);
    EXPECT_THAT(out.str(), Not(HasSubstr("[value_"))) << name;
  }
}

}  // namespace
}  // namespace orb::orbctl
