// Campaigns on disk: text format, as people write them, or serialized.
#pragma once

#include <string>

#include "proto/ltc_campaign.pb.h"

namespace orb::orbctl {

// Reads the campaign at `path`. Names ending in .txtpb, .textproto or .pbtxt
// are text, .pb, .binpb and .bin are serialized; for any other, the content
// decides. False with *error, one line that names the file and, for text, line
// and column.
bool ReadCampaignFile(const std::string& path, LTCCampaignDef* campaign, std::string* error);

}  // namespace orb::orbctl
