// Tested by tests/orbctl/commands_test.cpp and tests/integration/.
#include "tools/orbctl/campaign_command.h"

#include <fmt/format.h>

#include <algorithm>

#include "services/manager/control/campaign_size.h"
#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/campaign_lint.h"
#include "tools/orbctl/campaign_owners.h"
#include "tools/orbctl/control_client.h"
#include "tools/orbctl/output.h"
#include "utility/conf.h"

namespace orb::orbctl {
namespace {

LicInfo ToLicInfo(const LicOption& option) {
  LicInfo info;
  info.licSN = static_cast<int64_t>(option.lic_sn);
  info.sKeyEncAlgo = option.symmetric_algo;
  info.pKeyEncAlgo = option.public_key_algo;
  info.encryptionPKey.assign(option.key_pem.begin(), option.key_pem.end());
  return info;
}

}  // namespace

KIVCampConfig MakeConfig(const LTCCampaignDef& campaign, int64_t id,
                         const std::vector<LicOption>& lics) {
  KIVCampConfig config;
  config.campId = id;
  const std::string bytes = campaign.SerializeAsString();
  config.campaignDef.assign(bytes.begin(), bytes.end());
  for (const LicOption& owner : OwnersOf(campaign, lics)) {
    config.licInfo.push_back(ToLicInfo(owner));
  }
  return config;
}

void WarnOfMissingKeys(const LTCCampaignDef& campaign, const KIVCampConfig& config) {
  for (const LicenseSNKPIMap& map : campaign.lic_sn_kpi_maps()) {
    const bool sealed =
        std::any_of(config.licInfo.begin(), config.licInfo.end(), [&](const LicInfo& info) {
          return info.licSN == static_cast<int64_t>(map.lic_sn()) && !info.encryptionPKey.empty();
        });
    if (map.encrypt() && !sealed) {
      PrintError(
          fmt::format("warning: LicSN {0} is to be encrypted and has no key, so its data "
                      "will be dropped; give --lic {0}:PUB.pem:gcm",
                      map.lic_sn()));
    }
  }
}

void ExplainRefusal(const LTCCampaignDef& campaign, const Conf& conf, bool shared_memory) {
  for (const LintFinding& finding : LintCampaign({campaign, conf, {}, true, shared_memory, {}})) {
    if (finding.severity == Severity::kRefused) {
      PrintError(finding.entry + ": " + finding.message + " [" + finding.rule + "]");
    }
  }
}

int CampaignStartCommand::Run() const {
  std::string error;
  std::vector<LicOption> options(lics.size());
  for (size_t i = 0; i < lics.size(); ++i) {
    if (!ParseLicOption(lics[i], &options[i], &error)) {
      PrintError(error);
      return kUsage;
    }
    // A private key would even go out in the campaign.
    if (!options[i].key_pem.empty() && !CanSealFor(options[i])) {
      PrintError(
          fmt::format("--lic {}: no P-256 public key in PEM; give the public.pem that "
                      "`orbctl key new` wrote",
                      lics[i]));
      return kUsage;
    }
  }
  LTCCampaignDef campaign;
  if (!ReadCampaignFile(path, &campaign, &error)) return Fail(error);
  const std::string fault = OwnerFault(campaign, options, allow_plain);
  if (!fault.empty()) return Fail(fault);
  const KIVCampConfig config = MakeConfig(campaign, id, options);
  WarnOfMissingKeys(campaign, config);
  if (!FitsTransaction(config)) {
    return Fail("too large for one transaction (1 MiB); use a smaller campaign");
  }
  const android::sp<IOrbControl> manager = ConnectToManager(&error);
  if (manager == nullptr) return Fail(error);
  ControlReply reply;
  const android::binder::Status status = manager->startCampaign(client, config, &reply);
  const int code =
      PrintReply(status, reply, fmt::format("campaign {} runs on {}", id, client), json);
  if (status.isOk() && reply.result != 0) ExplainRefusal(campaign, Conf(), false);
  return code;
}

int StopCampaign(const std::string& client, bool json) {
  std::string error;
  const android::sp<IOrbControl> manager = ConnectToManager(&error);
  if (manager == nullptr) return Fail(error);
  ControlReply reply;
  const android::binder::Status status = manager->stopCampaign(client, &reply);
  return PrintReply(status, reply, "stopped", json);
}

int ReleaseCampaign(const std::string& client, bool json) {
  std::string error;
  const android::sp<IOrbControl> manager = ConnectToManager(&error);
  if (manager == nullptr) return Fail(error);
  ControlReply reply;
  const android::binder::Status status = manager->releaseCampaign(client, &reply);
  return PrintReply(status, reply, "released", json);
}

int SwitchLicSn(const std::string& client, uint64_t lic_sn, bool run, bool json) {
  std::string error;
  const android::sp<IOrbControl> manager = ConnectToManager(&error);
  if (manager == nullptr) return Fail(error);
  ControlReply reply;
  const auto number = static_cast<int64_t>(lic_sn);
  const android::binder::Status status = run ? manager->startLicSN(client, number, &reply)
                                             : manager->stopLicSN(client, number, &reply);
  return PrintReply(status, reply, fmt::format("LicSN {} {}", lic_sn, run ? "runs" : "stopped"),
                    json);
}

}  // namespace orb::orbctl
