// Campaigns on disk: text format, as people write them, or serialized.
#pragma once

#include <string>
#include <vector>

#include "proto/ltc_campaign.pb.h"

namespace orb::orbctl {

// Reads the campaign at `path`. Names ending in .txtpb, .textproto or .pbtxt
// are text, .pb, .binpb and .bin are serialized; for any other, the content
// decides. False with *error, one line that names the file and, for text, line
// and column.
//
// `value_limits`, unless null, gets what notes in a text file say of the KPIs' values,
// each as in value_limit.h:
//   # max-value 2001=4194304@100ms
bool ReadCampaignFile(const std::string& path, LTCCampaignDef* campaign, std::string* error,
                      std::vector<std::string>* value_limits = nullptr);

}  // namespace orb::orbctl
