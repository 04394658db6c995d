// Whose records a campaign's are: one rule for what is checked and what is started.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "proto/ltc_campaign.pb.h"
#include "tools/orbctl/lic_option.h"

namespace orb::orbctl {

// The options' owners first, in their order; an owner that the campaign names without an
// option follows without a key, because a client keeps data of listed owners only.
std::vector<LicOption> OwnersOf(const LTCCampaignDef& campaign, const std::vector<LicOption>& lics);

// Whether the owner's data are to be sealed: the first map of a LicSN decides.
bool IsSealed(const LTCCampaignDef& campaign, uint64_t lic_sn);

// Why the campaign must not be started, one line; "" when it may. Its data would have no
// owner, or go out plain although a key was given: `allow_plain` says that this is meant.
std::string OwnerFault(const LTCCampaignDef& campaign, const std::vector<LicOption>& lics,
                       bool allow_plain);

}  // namespace orb::orbctl
