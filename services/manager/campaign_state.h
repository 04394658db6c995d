// Between the three forms of a campaign: as a client gets it, as the disk keeps
// it, and as operators see it.
#pragma once

#include <cstdint>
#include <string>

#include "ipc/KIVCampConfig.h"
#include "proto/manager_state.pb.h"
#include "services/manager/control/ClientRecord.h"
#include "services/manager/control/ControlReply.h"
#include "services/manager/registered_client.h"

namespace orb::manager {

SavedCampaign ToSaved(const KIVCampConfig& config);
KIVCampConfig ToConfig(const SavedCampaign& saved);

// Deaths in a row, each within CampaignManager::Timing::early_death of a start, after
// which a client is not given its campaign again.
inline constexpr int32_t kEarlyDeathsMax = 3;

inline bool InQuarantine(const SavedCampaign& saved) {
  return saved.early_deaths() >= kEarlyDeathsMax;
}

// `client` is null while it is away.
ClientRecord RecordOf(const ClientState& state, const RegisteredClient* client);

ControlReply Reply(ControlReply::Status status, const std::string& message, int32_t result = 0);
ControlReply NotSaved();

// Wall clock, milliseconds since the epoch.
int64_t NowMs();

}  // namespace orb::manager
