// A client named radio with a directory of its own, a fake manager and HAL, and
// the log in view.
#pragma once

#include <android/log.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "collector/kiv_collector.h"
#include "ipc/KIVCampConfig.h"
#include "proto/ltc_campaign.pb.h"
#include "serializer/header_layout.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_aidl_client.h"
#include "tests/support/log_capture.h"

namespace orb::test {

class CollectorFixture : public testing::Test {
 protected:
  CollectorFixture() : data_dir_(dir_.path() + "/") {
    cfg_.name = "radio";
    cfg_.data_dir = data_dir_.c_str();
    cfg_.sync_register = 1;
  }
  ~CollectorFixture() override { Destroy(); }

  void WriteConf(const std::string& text) {
    ASSERT_TRUE(WriteFile(data_dir_ + "orb_sdk.conf", text));
  }
  // From cfg_, going through client_; replaces an earlier one.
  kiv_collector& Make() {
    Destroy();
    collector_ = std::make_unique<kiv_collector>(&cfg_);
    collector_->SetClientForTest(client_);
    return *collector_;
  }
  kiv_collector& MakeRegistered() {
    Make();
    EXPECT_EQ(collector_->Register(), 0);
    EXPECT_TRUE(client_->WaitForCalls("registerClient", 1));
    return *collector_;
  }
  void Destroy() {
    if (collector_ == nullptr) return;
    collector_->DeRegister();
    collector_->Unroute();
    collector_.reset();
  }

  // Exactly this line was logged.
  void ExpectLog(int priority, const std::string& text) const {
    EXPECT_TRUE(log_.Has(priority, "orb_sdk", text)) << text << "\nis not in\n" << log_.Dump();
  }
  void ExpectError(const std::string& text) const { ExpectLog(ANDROID_LOG_ERROR, text); }
  void ExpectInfo(const std::string& text) const { ExpectLog(ANDROID_LOG_INFO, text); }
  void ExpectDebug(const std::string& text) const { ExpectLog(ANDROID_LOG_DEBUG, text); }

  TempDir dir_;
  const std::string data_dir_;
  LogCapture log_;
  std::shared_ptr<FakeAidlClient> client_ = std::make_shared<FakeAidlClient>();
  kiv_cfg_s cfg_{};
  std::unique_ptr<kiv_collector> collector_;
};

inline KPICfg MakeKpi(uint32_t id, KPIType type, KPISubType sub_type = INVALID) {
  KPICfg cfg;
  cfg.set_kpi_id(id);
  cfg.set_type(type);
  cfg.set_sub_type(sub_type);
  if (type == KPI_BLOB) cfg.mutable_b_cfg()->set_single_sample_size_threshold_bytes(100);
  cfg.set_sample_window(1000);
  return cfg;
}

// A header's numbers, but for its times.
inline std::string HeaderText(const std::vector<uint8_t>& header) {
  EXPECT_EQ(header.size(), 66u);
  const auto number = [&](const auto& field) { return std::to_string(field.Load(header.data())); };
  return number(header::kFormat) + " " + number(header::kSize) + " client " +
         number(header::kClientId) + " kind " + number(header::kKind) + " version " +
         number(header::kVersion) + " length " + number(header::kLength) + " " +
         number(header::kConstant) + " compressed " + number(header::kCompressed) + " campaign " +
         number(header::kCampaignId) + " number " + number(header::kSeqno) + " owner " +
         number(header::kLicSn) + " sealed " + number(header::kEncrypted) + " footer at " +
         number(header::kFooterOffset);
}

inline const uint8_t* Bytes(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

// Thresholds that are always accepted, and the KPIs.
inline LTCCampaignDef MakeCampaign(const std::vector<KPICfg>& kpis = {}) {
  LTCCampaignDef def;
  def.set_threshold_size(4096);
  def.set_threshold_time(60);
  for (const KPICfg& kpi : kpis) *def.add_kpi_cfgs() = kpi;
  return def;
}

inline void AddLicSn(LTCCampaignDef* def, uint64_t licSN, bool encrypt,
                     const std::vector<uint32_t>& kpis = {}) {
  LicenseSNKPIMap* entry = def->add_lic_sn_kpi_maps();
  entry->set_lic_sn(licSN);
  entry->set_encrypt(encrypt);
  for (const uint32_t kpi : kpis) entry->add_kpi_ids(kpi);
}

inline LicInfo MakeLicInfo(int64_t licSN, const std::string& key = "", int pKeyEncAlgo = 0,
                           int sKeyEncAlgo = 0) {
  LicInfo info;
  info.licSN = licSN;
  info.encryptionPKey.assign(key.begin(), key.end());
  info.pKeyEncAlgo = pKeyEncAlgo;
  info.sKeyEncAlgo = sKeyEncAlgo;
  return info;
}

inline KIVCampConfig MakeConfig(const std::string& campaign, std::vector<LicInfo> licInfo = {}) {
  KIVCampConfig config;
  config.campaignDef.assign(campaign.begin(), campaign.end());
  config.licInfo = std::move(licInfo);
  return config;
}

inline KIVCampConfig MakeConfig(const LTCCampaignDef& def, std::vector<LicInfo> licInfo = {}) {
  return MakeConfig(def.SerializeAsString(), std::move(licInfo));
}

}  // namespace orb::test
