// Tested by tests/orbctl/campaign_lint_test.cpp and commands_test.cpp.
#include "tools/orbctl/campaign_owners.h"

#include <fmt/format.h>

#include <algorithm>

namespace orb::orbctl {

std::vector<LicOption> OwnersOf(const LTCCampaignDef& campaign,
                                const std::vector<LicOption>& lics) {
  std::vector<LicOption> owners = lics;
  for (const LicenseSNKPIMap& map : campaign.lic_sn_kpi_maps()) {
    const bool listed = std::any_of(owners.begin(), owners.end(), [&](const LicOption& owner) {
      return owner.lic_sn == map.lic_sn();
    });
    if (!listed) owners.push_back({map.lic_sn(), "", 0, 0});
  }
  return owners;
}

bool IsSealed(const LTCCampaignDef& campaign, uint64_t lic_sn) {
  for (const LicenseSNKPIMap& map : campaign.lic_sn_kpi_maps()) {
    if (map.lic_sn() == lic_sn) return map.encrypt();
  }
  return false;
}

std::string OwnerFault(const LTCCampaignDef& campaign, const std::vector<LicOption>& lics,
                       bool allow_plain) {
  if (OwnersOf(campaign, lics).empty()) {
    return "the campaign has no owner, so all of its data would be lost: add lic_sn_kpi_maps, or "
           "give --lic LICSN";
  }
  for (const LicOption& lic : lics) {
    if (allow_plain || lic.key_pem.empty() || IsSealed(campaign, lic.lic_sn)) continue;
    return fmt::format(
        "--lic {0}: a key is given, but the campaign does not say `encrypt: true` for LicSN {0}, "
        "so its data would be stored plain; say so in lic_sn_kpi_maps, or --allow-plain",
        lic.lic_sn);
  }
  return "";
}

}  // namespace orb::orbctl
