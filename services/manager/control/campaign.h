// A campaign on its way from an operator to a client.
#pragma once

#include <cstddef>

#include "ipc/KIVCampConfig.h"
#include "proto/manager_state.pb.h"

namespace orb::manager {

// The bus carries 1 MiB - 8 KiB of data a transaction; as much again is left for the
// names and tokens around the campaign.
inline constexpr size_t kMaxCampaignBytes = (size_t{1} << 20) - (size_t{16} << 10);

// What the client gets.
KIVCampConfig ToConfig(const SavedCampaign& campaign);

// Whether one transaction carries it to the client.
bool FitsTransaction(const SavedCampaign& campaign);

}  // namespace orb::manager
