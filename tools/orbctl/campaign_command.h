// orbctl campaign start|stop|lic-start|lic-stop.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "proto/ltc_campaign.pb.h"
#include "proto/manager_state.pb.h"
#include "tools/orbctl/lic_option.h"
#include "utility/conf.h"

namespace orb::orbctl {

// What a client is to be given.
manager::SavedCampaign MakeCampaign(const LTCCampaignDef& definition, int64_t id,
                                    const std::vector<LicOption>& lics);

// Tells of owners whose data are to be sealed, but who have no key: their data
// are lost.
void WarnOfMissingKeys(const LTCCampaignDef& definition, const manager::SavedCampaign& campaign);

// Tells what a client with these limits most likely objected to.
void ExplainRefusal(const LTCCampaignDef& campaign, const Conf& conf, bool shared_memory);

struct CampaignStartCommand {
  std::string client;
  std::string path;
  int64_t id = 1;
  std::vector<std::string> lics;  // The --lic options as given.
  bool allow_plain = false;       // A key may be given that seals nothing.
  bool json = false;

  int Run() const;
};

int StopCampaign(const std::string& client, bool json);
// Ends the quarantine of the client's campaign.
int ReleaseCampaign(const std::string& client, bool json);
// Starts or stops one owner's data of the campaign that runs.
int SwitchLicSn(const std::string& client, uint64_t lic_sn, bool run, bool json);

}  // namespace orb::orbctl
