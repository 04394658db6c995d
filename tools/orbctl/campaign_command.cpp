// Tested by tests/orbctl/commands_test.cpp and tests/integration/.
#include "tools/orbctl/campaign_command.h"

#include <fmt/format.h>

#include <algorithm>

#include "services/manager/control/campaign.h"
#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/campaign_lint.h"
#include "tools/orbctl/campaign_owners.h"
#include "tools/orbctl/control_client.h"
#include "tools/orbctl/output.h"
#include "utility/conf.h"

namespace orb::orbctl {
manager::SavedCampaign MakeCampaign(const LTCCampaignDef& definition, int64_t id,
                                    const std::vector<LicOption>& lics) {
  manager::SavedCampaign campaign;
  campaign.set_camp_id(id);
  campaign.set_definition(definition.SerializeAsString());
  for (const LicOption& owner : OwnersOf(definition, lics)) {
    manager::LicKey* const key = campaign.add_lic_keys();
    key->set_lic_sn(static_cast<int64_t>(owner.lic_sn));
    key->set_symmetric_algo(owner.symmetric_algo);
    key->set_public_key_algo(owner.public_key_algo);
    key->set_public_key(owner.key_pem);
  }
  return campaign;
}

void WarnOfMissingKeys(const LTCCampaignDef& definition, const manager::SavedCampaign& campaign) {
  for (const LicenseSNKPIMap& map : definition.lic_sn_kpi_maps()) {
    const bool sealed = std::any_of(
        campaign.lic_keys().begin(), campaign.lic_keys().end(), [&](const manager::LicKey& key) {
          return key.lic_sn() == static_cast<int64_t>(map.lic_sn()) && !key.public_key().empty();
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
  LTCCampaignDef definition;
  if (!ReadCampaignFile(path, &definition, &error)) return Fail(error);
  const std::string fault = OwnerFault(definition, options, allow_plain);
  if (!fault.empty()) return Fail(fault);
  manager::ControlRequest request = RequestOf(manager::ControlRequest::START_CAMPAIGN, client);
  *request.mutable_campaign() = MakeCampaign(definition, id, options);
  WarnOfMissingKeys(definition, request.campaign());
  if (!manager::FitsTransaction(request.campaign())) {
    return Fail("too large for one transaction (1 MiB); use a smaller campaign");
  }
  const Result<manager::ControlReply> reply = AskManager(request);
  const int code = PrintReply(reply, fmt::format("campaign {} runs on {}", id, client), json);
  if (reply.ok() && reply->result() != 0) ExplainRefusal(definition, Conf(), false);
  return code;
}

int StopCampaign(const std::string& client, bool json) {
  return PrintReply(AskManager(RequestOf(manager::ControlRequest::STOP_CAMPAIGN, client)),
                    "stopped", json);
}

int ReleaseCampaign(const std::string& client, bool json) {
  return PrintReply(AskManager(RequestOf(manager::ControlRequest::RELEASE_CAMPAIGN, client)),
                    "released", json);
}

int SwitchLicSn(const std::string& client, uint64_t lic_sn, bool run, bool json) {
  manager::ControlRequest request = RequestOf(
      run ? manager::ControlRequest::START_LIC_SN : manager::ControlRequest::STOP_LIC_SN, client);
  request.set_lic_sn(static_cast<int64_t>(lic_sn));
  return PrintReply(AskManager(request),
                    fmt::format("LicSN {} {}", lic_sn, run ? "runs" : "stopped"), json);
}

}  // namespace orb::orbctl
